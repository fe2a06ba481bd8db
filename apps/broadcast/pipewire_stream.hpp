// PipeWireStream: one screen's video stream read from PipeWire, as the desktop's
// screen-sharing portal hands it over (a connection and the stream's node). It
// offers the pixel layouts taken without conversion (BGRx, BGRA, RGBx, RGBA,
// NV12) at any size and any rate including "only when something changed",
// follows size changes, copies each picture out of PipeWire's buffer into a
// small pool of our own and gives the buffer back at once: the compositor has
// only a few and stops drawing while we hold them.
//
// A still screen sends nothing, which is not an error. The stream ends (the end
// handler, once) when its node goes away, it fails, or PipeWire itself goes away.
//
// Owned by the Wayland screen source. `open`, `start`, `stop` and the destructor
// run on the main thread; the handlers run on the stream's own PipeWire thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/broadcast/pixel_buffer_pool.hpp"
#include "zephlo/platform/sample_buffer.hpp"

struct pw_buffer;
struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_registry;
struct pw_stream;
struct spa_buffer;
struct spa_pod;
struct spa_source;

namespace zephlo {

class PipeWireStream {
 public:
  using FrameHandler = std::function<void(const platform::SampleBuffer& sample)>;
  using EndHandler = std::function<void(const std::string& why)>;

  // Connects through `fd` (taken over, closed in every case) to the PipeWire
  // node `nodeId`; samples come in `format` with `orientation` attached. Null
  // with `error` set when PipeWire refuses the connection.
  static std::unique_ptr<PipeWireStream> open(int fd, std::uint32_t nodeId, platform::PixelFormat format,
                                              std::int64_t orientation, std::string* error);
  ~PipeWireStream();
  PipeWireStream(const PipeWireStream&) = delete;
  PipeWireStream& operator=(const PipeWireStream&) = delete;

  // Starts the stream; called once.
  void start(FrameHandler frame, EndHandler ended);
  // Returns when no handler runs any more and none will. Idempotent.
  void stop();
  // The picture's size in pixels once the producer has settled it, waiting at
  // most `limit` for that; nothing when it has not.
  std::optional<std::pair<int, int>> waitForSize(std::chrono::milliseconds limit);

 private:
  PipeWireStream(std::uint32_t nodeId, platform::PixelFormat format, std::int64_t orientation);
  struct Listeners;
  void formatChanged(const spa_pod* param);
  void process();
  // The buffer's picture copied into the pool; nothing for a buffer without one,
  // or (with `poolFull` set) when every pool buffer is still held downstream.
  std::optional<platform::SampleBuffer> deliver(const spa_buffer* buffer, bool* poolFull);
  void end(const std::string& why);

  std::uint32_t nodeId_;
  platform::PixelFormat outputFormat_;
  std::int64_t orientation_;
  pw_thread_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_registry* registry_ = nullptr;
  pw_stream* stream_ = nullptr;
  std::unique_ptr<Listeners> listeners_;
  bool running_ = false;
  std::mutex sizeMutex_;
  std::condition_variable sizeKnown_;
  std::optional<std::pair<int, int>> size_;
  // Everything below belongs to the PipeWire thread.
  std::uint32_t videoFormat_ = 0;
  int width_ = 0;
  int height_ = 0;
  std::unique_ptr<PixelBufferPool> pool_;
  // The newest picture, kept while the pool has no free buffer; `retry_` looks again.
  pw_buffer* held_ = nullptr;
  spa_source* retry_ = nullptr;
  std::vector<std::uint8_t> scratch_;
  FrameHandler frame_;
  EndHandler ended_;
};

}  // namespace zephlo
