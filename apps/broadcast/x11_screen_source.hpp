// X11ScreenSource: the screen of an X11 display. It subscribes to DAMAGE on the
// root window and, when something changed, fills a picture of the screen with
// only what that picture lacks: the damaged rectangles from the server, and what
// changed since the picture last held the screen from the newest picture (the
// whole screen when most of it changed, through MIT-SHM straight into the
// picture's own shared memory). It delivers at most at the sample rate, and a
// whole screen at most once a frame loop tick, as the loop renders no more: an
// idle desktop costs next to nothing. DAMAGE is taken as a hint: one band of the
// screen is compared with the newest picture four times a second, so a change it
// missed still shows within two seconds. Where the server has no DAMAGE it grabs
// the whole screen at every tick of the sample rate and delivers it when it
// differs from the newest picture; where MIT-SHM cannot be attached (another IPC
// namespace, a remote display) it reads with plain GetImage. It follows the
// screen's size (ConfigureNotify on the root) and ends when the display goes.
//
// Owned by the broadcast host; `open`, `start` and `stop` run on the main thread;
// once started, the xcb connection is the source's own thread's alone. Samples
// are BGRA as the server stores them (24-bit depth, 32 bits a pixel), or NV12
// converted from that; they come from pools of two buffers.
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
    // Pixels covered (overlaps counted twice), of a screen `width` x `height`.
    std::int64_t area(int width, int height) const;
  };
  // Whether `area` pixels are most of the screen.
  bool mostOfScreen(std::int64_t area) const { return 2 * area > static_cast<std::int64_t>(width_) * height_; }

  X11ScreenSource(xcb_connection_t* connection, std::uint32_t root, platform::PixelFormat format,
                  std::int64_t orientation, double sampleRate);
  void setUpDamage();
  // Pictures for a screen of `width` x `height` pixels; MIT-SHM where it attaches.
  void allocate(int width, int height);
  // Shared memory the server has attached, in `*segment`; null where it cannot.
  std::shared_ptr<std::uint8_t> attachSegment(std::size_t bytes, std::uint32_t* segment);
  void releaseSegments();
  void run();
  // An event from the X connection (an xcb_generic_event_t).
  void handle(const void* event);
  // What a sample took: nothing (no buffer was free, or nothing changed), a few
  // changes, or (most of) the whole screen (NV12 is converted whole).
  enum class Delivered { Nothing, Changes, WholeScreen };
  // Fills a picture with what changed and delivers it.
  Delivered sample();
  // What changed on the screen since the newest picture.
  Changes takeChanges();
  // Reads the next band of the screen; one that differs from the newest picture
  // counts as damaged.
  void checkBand();
  // Reads `rects` of the screen into the same places of `picture`.
  void fetchInto(const std::vector<Rect>& rects, platform::PixelBuffer& picture);
  // Reads `rects` of the screen and hands each one's rows (rect.width * 4 bytes
  // each) to `use`.
  void fetch(const std::vector<Rect>& rects, const std::function<void(const Rect&, const std::uint8_t*)>& use);

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
  // Pictures of the screen, BGRA rows as the server stores them: delivered as
  // they are, or converted into `nv12_`'s buffers.
  std::unique_ptr<PixelBufferPool> pictures_;
  std::unique_ptr<PixelBufferPool> nv12_;
  // The newest picture, held so that the next is filled in the other one.
  std::shared_ptr<platform::PixelBuffer> newest_;
  // What each picture lacks of the newest one; a picture not listed lacks all.
  std::map<const platform::PixelBuffer*, Changes> stale_;
  // The server's MIT-SHM segment of each picture's memory, by its address.
  std::map<const std::uint8_t*, std::uint32_t> segments_;
  // Where rectangles land through MIT-SHM: up to half a screen at a time.
  std::shared_ptr<std::uint8_t> scratch_;
  std::uint32_t scratchSegment_ = 0;
  std::size_t scratchBytes_ = 0;
  bool wholeScreenDue_ = true;  // first, and after a size change
  bool damaged_ = true;
  Changes missed_;      // bands that changed without damage
  int checkedRow_ = 0;  // the first row of the band checkBand reads next

  Sink sink_;
  EndHandler ended_;
  std::atomic<bool> stopping_{false};
  int wakeFd_ = -1;
  std::thread thread_;
};

}  // namespace zephlo
