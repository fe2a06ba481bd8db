// X11ScreenSource: the screen of an X11 display, read through MIT-SHM (the
// server writes the root window's pixels into a shared memory segment, with no
// copy through the socket). A sample is handed over only when the screen has
// changed since the last one, so an idle desktop costs one grab and one compare
// per tick and nothing downstream. When the display goes away the source ends.
//
// Owned by the broadcast host; `open` runs on the main thread, `sampleAt` on the
// ticker's thread (the xcb connection is used by that thread alone afterwards).
// Samples are BGRA as the server stores them (24-bit depth, 32 bits a pixel), or
// NV12 converted from that; they come from a small pool.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/broadcast/pixel_buffer_pool.hpp"
#include "apps/broadcast/sample_ticker.hpp"
#include "apps/broadcast/screen_source.hpp"

struct xcb_connection_t;

namespace zephlo {

class X11ScreenSource : public ScreenSource {
 public:
  // Connects to `display` (empty: $DISPLAY) and grabs at most `sampleRate`
  // times a second; null, with `error` set, when the display cannot be opened,
  // lacks MIT-SHM or has a pixel layout other than 32 bits a pixel.
  static std::unique_ptr<X11ScreenSource> open(const std::string& display, platform::PixelFormat format,
                                               std::int64_t orientation, double sampleRate, std::string* error);
  ~X11ScreenSource() override;
  X11ScreenSource(const X11ScreenSource&) = delete;
  X11ScreenSource& operator=(const X11ScreenSource&) = delete;

  int width() const { return width_; }
  int height() const { return height_; }

  void start(Sink sink, EndHandler ended) override;
  void stop() override;

  // The screen when it differs from the last sample handed over (the first grab
  // always does); nothing when it is unchanged or the grab failed. A grab that
  // finds the display gone calls the end handler.
  std::optional<platform::SampleBuffer> sampleAt(platform::Duration sinceStart);

 private:
  X11ScreenSource(xcb_connection_t* connection, std::uint32_t root, int width, int height,
                  platform::PixelFormat format, std::int64_t orientation, double sampleRate);
  bool attachSegment(std::string* error);
  bool grab();

  xcb_connection_t* connection_;
  std::uint32_t root_;
  int width_;
  int height_;
  std::int64_t orientation_;
  int shmId_ = -1;
  std::uint8_t* shm_ = nullptr;
  std::uint32_t segment_ = 0;
  PixelBufferPool pool_;
  // The last screen handed over, as BGRA rows; empty before the first sample.
  std::vector<std::uint8_t> last_;
  EndHandler ended_;
  SampleTicker ticker_;
};

}  // namespace zephlo
