// X11ScreenSource: the screen of an X11 display. It subscribes to DAMAGE on the
// root window, keeps a copy of the screen up to date by fetching only the
// damaged rectangles through MIT-SHM (the whole screen when most of it changed),
// and delivers a sample only after something changed, at most at the sample
// rate (a whole screen at most once a frame loop tick, as the loop renders no
// more): an idle desktop costs next to nothing. DAMAGE is taken as a hint: one
// band of the screen is compared with the copy four times a second, so a change
// it missed still shows within two seconds. Where the server has no DAMAGE it grabs
// the whole screen at every tick of the sample rate and delivers it when it
// differs from the last; where MIT-SHM cannot be attached (another IPC
// namespace, a remote display) it reads with plain GetImage. It follows the
// screen's size (ConfigureNotify on the root) and ends when the display goes.
//
// Owned by the broadcast host; `open`, `start` and `stop` run on the main thread;
// once started, the xcb connection is the source's own thread's alone. Samples
// are BGRA as the server stores them (24-bit depth, 32 bits a pixel), or NV12
// converted from that; they come from a pool of two buffers.
//
// THREADING: `stop` sets an atomic flag and wakes the thread through an eventfd
// it polls beside the X connection.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "apps/broadcast/pixel_buffer_pool.hpp"
#include "apps/broadcast/screen_source.hpp"

struct xcb_connection_t;

namespace zephlo {

class X11ScreenSource : public ScreenSource {
 public:
  // Connects to `display` (empty: $DISPLAY) and delivers at most `sampleRate`
  // samples a second; null, with `error` set, when the display cannot be opened
  // or has a pixel layout other than 32 bits a pixel.
  static std::unique_ptr<X11ScreenSource> open(const std::string& display, platform::PixelFormat format,
                                               std::int64_t orientation, double sampleRate, std::string* error);
  ~X11ScreenSource() override;
  X11ScreenSource(const X11ScreenSource&) = delete;
  X11ScreenSource& operator=(const X11ScreenSource&) = delete;

  void start(Sink sink, EndHandler ended) override;
  void stop() override;
  // Xft.dpi / 96 rounded, from the X resources; 1 where it is not set.
  std::optional<int> desktopScale() const override { return desktopScale_; }

  // How the screen is read, for the log and the tests: "DAMAGE with MIT-SHM",
  // "DAMAGE with GetImage", "polling with MIT-SHM" or "polling with GetImage".
  std::string method() const;

 private:
  struct Rect {
    int x, y, width, height;
  };
  // Parts of the screen changed: rectangles, or all of it.
  struct Changes {
    std::vector<Rect> rects;
    bool whole = false;
    void add(const Rect& rect, int width, int height);
    void add(const Changes& more, int width, int height);
  };

  X11ScreenSource(xcb_connection_t* connection, std::uint32_t root, platform::PixelFormat format,
                  std::int64_t orientation, double sampleRate);
  void setUpDamage();
  // Buffers for a screen of `width` x `height` pixels; MIT-SHM where it attaches.
  void allocate(int width, int height);
  void releaseSegment();
  void run();
  // An event from the X connection (an xcb_generic_event_t).
  void handle(const void* event);
  // Brings the copy of the screen up to date; whether a sample is due.
  bool capture();
  void fetchWhole();
  // Into the screen copy; many or large rectangles as the whole screen.
  void fetchRects(std::vector<Rect> rects);
  // Reads the next band of the screen and compares it with the copy, which it
  // brings up to date; whether the band had changed.
  bool checkBand();
  // Reads `rects` from the screen and hands each one's rows (rect.width * 4
  // bytes each) to `use`.
  void fetch(const std::vector<Rect>& rects, const std::function<void(const Rect&, const std::uint8_t*)>& use);
  // What delivering the sample took: nothing (no buffer was free), the changes
  // the buffer lacked, or (most of) the whole screen (NV12 is converted whole).
  enum class Delivered { Nothing, Changes, WholeScreen };
  Delivered deliver();

  xcb_connection_t* connection_;
  std::uint32_t root_;
  platform::PixelFormat format_;
  std::int64_t orientation_;
  std::chrono::nanoseconds interval_;
  int desktopScale_ = 1;

  bool useShm_ = false;
  std::uint32_t damage_ = 0;  // 0: no DAMAGE, polling
  std::uint32_t region_ = 0;
  std::uint8_t damageNotify_ = 0;

  int width_ = 0;
  int height_ = 0;
  // The screen as last fetched, BGRA rows of width_ * 4 bytes: the
  // start of the MIT-SHM segment (after it, room for the damaged rectangles),
  // else `ownMirror_`.
  std::uint8_t* mirror_ = nullptr;
  std::uint8_t* shm_ = nullptr;
  std::uint32_t segment_ = 0;
  std::vector<std::uint8_t> ownMirror_;
  // When polling: the screen of the last sample, to compare with.
  std::vector<std::uint8_t> last_;
  bool wholeScreenDue_ = true;  // first, and after a size change
  bool damaged_ = true;
  int checkedRow_ = 0;  // the first row of the band checkBand reads next
  std::unique_ptr<PixelBufferPool> pool_;
  // What changed in the screen copy since the last sample, and (BGRA) what each
  // pooled buffer lacks of it; a buffer not listed yet lacks everything.
  Changes changed_;
  std::map<const platform::PixelBuffer*, Changes> stale_;

  Sink sink_;
  EndHandler ended_;
  std::atomic<bool> stopping_{false};
  int wakeFd_ = -1;
  std::thread thread_;
};

}  // namespace zephlo
