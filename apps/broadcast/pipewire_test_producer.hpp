// PipeWireTestProducer: for tests, a private PipeWire (the daemon, a session
// bus and the session manager, which links streams, on a runtime directory of
// the test's own) and on it a screen stream of the test's own that sends the
// pictures it is told to, each once, as a compositor sends its screen: a
// picture of three blocks (the top half's left and right, the bottom half),
// optionally marked corrupted or cropped, in BGRx or RGBx, at a size that may
// change.
//
// The stream follows the graph's own clock (it is not the driver), so a picture
// waits in PipeWire until the reader takes it instead of being lost when it is
// sent before the reader runs.
//
// Owned by the test; the stream runs on its own PipeWire thread. The daemons
// die with the producer, or with the test process.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "apps/broadcast/canvas.hpp"
#include "apps/broadcast/child_process.hpp"

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_stream;
struct spa_pod;

namespace zephlo::testing {

class PipeWireTestProducer {
 public:
  struct Picture {
    Picture(Rgb topLeft, Rgb topRight, Rgb bottom, bool corrupted = false, std::optional<Rect> crop = std::nullopt)
        : topLeft(topLeft), topRight(topRight), bottom(bottom), corrupted(corrupted), crop(crop) {}
    Rgb topLeft, topRight, bottom;
    bool corrupted = false;
    // Only this part is the picture.
    std::optional<Rect> crop;
  };

  explicit PipeWireTestProducer(const std::string& directory);
  ~PipeWireTestProducer();
  PipeWireTestProducer(const PipeWireTestProducer&) = delete;
  PipeWireTestProducer& operator=(const PipeWireTestProducer&) = delete;

  // Whether the daemon is up (its socket is there).
  bool ready() const { return ready_; }
  // A new connection to the daemon, as the portal hands one over; -1 on failure.
  int connect() const;
  // Starts the stream at `width`x`height`, `rgbOrder` for RGBx (else BGRx), and
  // returns its node, or nothing when it did not come up. It sends `first` as
  // soon as a reader is linked.
  std::optional<std::uint32_t> startStream(int width, int height, bool rgbOrder, Picture first);
  // Sends one picture after those already waiting.
  void show(Picture picture);
  // Renegotiates the stream to `width`x`height`; pictures shown from now on
  // go out at the new size.
  void resize(int width, int height);
  // The stream goes away.
  void stopStream();
  // The PipeWire daemon dies.
  void killDaemon();

 private:
  void formatChanged(const spa_pod* param);
  void offerFormat(int width, int height);
  void fill();
  // Padded rows, as compositors have them.
  int rowBytes() const { return width_ * 4 + 64; }

  std::string directory_;
  std::unique_ptr<ChildProcess> daemon_;
  std::unique_ptr<ChildProcess> bus_;
  std::unique_ptr<ChildProcess> sessionManager_;
  bool ready_ = false;
  pw_thread_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_stream* stream_ = nullptr;
  struct Hooks;
  std::unique_ptr<Hooks> hooks_;
  // Guarded by the loop's lock. The size asked for, and the one negotiated.
  int wantedWidth_ = 0;
  int wantedHeight_ = 0;
  int width_ = 0;
  int height_ = 0;
  bool rgbOrder_ = false;
  std::deque<Picture> pictures_;
};

}  // namespace zephlo::testing
