#include "apps/broadcast/x11_screen_source.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>

#include "apps/broadcast/pixel_conversion.hpp"
#include "zephlo/capture/frame_loop.hpp"
#include "zephlo/platform/log.hpp"

namespace zephlo {

namespace {

// Two buffers: the one the frame source holds and the one being filled. When the
// renderer still reads the older one, the sample waits for the next tick.
constexpr std::size_t kPoolBuffers = 2;
// The frame loop renders at most one sample a tick: a sample that meant writing
// the whole screen into its buffer is followed by the next no sooner than a tick
// later, since most of those written in between would never be rendered. Small
// changes keep the sample rate; the first change after a pause goes out at once.
constexpr std::chrono::nanoseconds kWholeScreenInterval = ZPHFrameLoop::kIdleTickInterval;
// DAMAGE can miss changes (GL drivers, compositors): every kCheckInterval one
// of kCheckBands bands of the screen is read and compared with the copy, so a
// missed change shows within kCheckBands * kCheckInterval.
constexpr std::chrono::milliseconds kCheckInterval{250};
constexpr int kCheckBands = 8;

// Replies and events from xcb are malloc'd.
template <typename T>
using XcbReply = std::unique_ptr<T, decltype(&std::free)>;
template <typename T>
XcbReply<T> own(T* reply) {
  return XcbReply<T>(reply, &std::free);
}

// Xft.dpi / 96 rounded from the RESOURCE_MANAGER string of the root window, as
// desktops set it for HiDPI monitors; 1 where it is not set.
int readDesktopScale(xcb_connection_t* connection, xcb_window_t root) {
  auto reply = own(xcb_get_property_reply(
      connection, xcb_get_property(connection, 0, root, XCB_ATOM_RESOURCE_MANAGER, XCB_ATOM_STRING, 0, 1 << 16),
      nullptr));
  if (!reply) return 1;
  const std::string_view resources(static_cast<const char*>(xcb_get_property_value(reply.get())),
                                   static_cast<std::size_t>(xcb_get_property_value_length(reply.get())));
  constexpr std::string_view kKey = "Xft.dpi:";
  for (std::size_t at = 0; at < resources.size();) {
    const auto end = std::min(resources.find('\n', at), resources.size());
    const auto line = resources.substr(at, end - at);
    if (line.starts_with(kKey)) {
      const double dpi = std::atof(std::string(line.substr(kKey.size())).c_str());
      return dpi > 0 ? std::max(1, static_cast<int>(std::lround(dpi / 96))) : 1;
    }
    at = end + 1;
  }
  return 1;
}

bool hasExtension(xcb_connection_t* connection, xcb_extension_t* extension) {
  const auto* data = xcb_get_extension_data(connection, extension);
  return data && data->present;
}

// Where pixel (x, y) of a BGRA picture is, from the start of its plane.
std::ptrdiff_t offsetOf(const platform::PixelBuffer& picture, int x, int y) {
  return static_cast<std::ptrdiff_t>(y) * picture.stride(0) + static_cast<std::ptrdiff_t>(x) * 4;
}

// Copies a rectangle `width` pixels wide and `height` high from `from` (rows
// `fromStride` bytes apart) to `to` (rows `toStride` bytes apart). The fourth
// byte stays as the server left it (undefined at depth 24): nothing downstream
// reads it.
void copyRect(const std::uint8_t* from, std::size_t fromStride, int width, int height, std::uint8_t* to,
              std::size_t toStride) {
  const auto rowBytes = static_cast<std::size_t>(width) * 4;
  for (int y = 0; y < height; ++y) std::memcpy(to + y * toStride, from + y * fromStride, rowBytes);
}

// Whether two rectangles `width` x `height` of BGRA pixels, laid out as for
// copyRect, hold the same pixels.
bool sameRect(const std::uint8_t* a, std::size_t aStride, const std::uint8_t* b, std::size_t bStride, int width,
              int height) {
  const auto rowBytes = static_cast<std::size_t>(width) * 4;
  for (int y = 0; y < height; ++y) {
    if (std::memcmp(a + y * aStride, b + y * bStride, rowBytes) != 0) return false;
  }
  return true;
}

}  // namespace

std::unique_ptr<X11ScreenSource> X11ScreenSource::open(const std::string& display, platform::PixelFormat format,
                                                       std::int64_t orientation, double sampleRate,
                                                       std::string* error) {
  int screenNumber = 0;
  xcb_connection_t* connection = xcb_connect(display.empty() ? nullptr : display.c_str(), &screenNumber);
  if (xcb_connection_has_error(connection)) {
    xcb_disconnect(connection);
    const char* fromEnvironment = std::getenv("DISPLAY");
    *error = "cannot open X11 display " + (display.empty() ? std::string(fromEnvironment ? fromEnvironment : "(unset)") : display);
    return nullptr;
  }
  xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(connection));
  for (int i = 0; i < screenNumber && it.rem; ++i) xcb_screen_next(&it);
  if (!it.rem) {
    xcb_disconnect(connection);
    *error = "X11 display has no such screen";
    return nullptr;
  }
  const xcb_screen_t* screen = it.data;
  if (screen->root_depth != 24 && screen->root_depth != 32) {
    xcb_disconnect(connection);
    *error = "X11 screen depth " + std::to_string(screen->root_depth) + " is not supported (24 or 32 only)";
    return nullptr;
  }
  std::unique_ptr<X11ScreenSource> source(
      new X11ScreenSource(connection, screen->root, format, orientation, sampleRate));
  source->desktopScale_ = readDesktopScale(connection, screen->root);
  // The root's ConfigureNotify tells of a new screen size (RandR included).
  const std::uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
  xcb_change_window_attributes(connection, screen->root, XCB_CW_EVENT_MASK, &events);
  source->useShm_ = hasExtension(connection, &xcb_shm_id);
  if (source->useShm_) {
    source->useShm_ = own(xcb_shm_query_version_reply(connection, xcb_shm_query_version(connection), nullptr)) != nullptr;
  }
  source->allocate(screen->width_in_pixels, screen->height_in_pixels);
  source->setUpDamage();
  if (source->method() != "DAMAGE with MIT-SHM") {
    platform::log("X11 capture: " + source->method() +
                  (source->damage_ ? "" : " (the display has no DAMAGE: the whole screen is read at every tick)") +
                  (source->useShm_ ? "" : " (MIT-SHM cannot be used with this display)"));
  }
  return source;
}

X11ScreenSource::X11ScreenSource(xcb_connection_t* connection, std::uint32_t root, platform::PixelFormat format,
                                 std::int64_t orientation, double sampleRate)
    : connection_(connection),
      root_(root),
      format_(format),
      orientation_(orientation),
      interval_(static_cast<std::int64_t>(1e9 / std::max(sampleRate, 0.001))),
      wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

X11ScreenSource::~X11ScreenSource() {
  stop();
  if (damage_) xcb_damage_destroy(connection_, damage_);
  if (region_) xcb_xfixes_destroy_region(connection_, region_);
  releaseSegments();
  xcb_disconnect(connection_);
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

std::string X11ScreenSource::method() const {
  return std::string(damage_ ? "DAMAGE" : "polling") + (useShm_ ? " with MIT-SHM" : " with GetImage");
}

void X11ScreenSource::setUpDamage() {
  if (!hasExtension(connection_, &xcb_damage_id) || !hasExtension(connection_, &xcb_xfixes_id)) return;
  // Both want their version asked before any other request; regions are XFixes 2.
  auto xfixes = own(xcb_xfixes_query_version_reply(connection_, xcb_xfixes_query_version(connection_, 2, 0), nullptr));
  auto damage = own(xcb_damage_query_version_reply(connection_, xcb_damage_query_version(connection_, 1, 1), nullptr));
  if (!xfixes || xfixes->major_version < 2 || !damage) return;
  region_ = xcb_generate_id(connection_);
  xcb_xfixes_create_region(connection_, region_, 0, nullptr);
  // NonEmpty: one event when the damage goes from nothing to something; the
  // rectangles are then taken (and the damage emptied) with Subtract.
  damage_ = xcb_generate_id(connection_);
  xcb_damage_create(connection_, damage_, root_, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
  damageNotify_ = static_cast<std::uint8_t>(xcb_get_extension_data(connection_, &xcb_damage_id)->first_event +
                                            XCB_DAMAGE_NOTIFY);
}

std::shared_ptr<std::uint8_t> X11ScreenSource::attachSegment(std::size_t bytes, std::uint32_t* segment) {
  const int id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
  if (id < 0) return nullptr;
  void* at = shmat(id, nullptr, 0);
  // Marked for removal now: it goes away with the last detach, even after a crash.
  shmctl(id, IPC_RMID, nullptr);
  if (at == reinterpret_cast<void*>(-1)) return nullptr;
  *segment = xcb_generate_id(connection_);
  if (own(xcb_request_check(connection_,
                            xcb_shm_attach_checked(connection_, *segment, static_cast<std::uint32_t>(id), 0)))) {
    shmdt(at);
    return nullptr;
  }
  // The memory may outlive the source in a sample still held downstream, so its
  // deleter leaves the connection alone: the server detaches in releaseSegments.
  return std::shared_ptr<std::uint8_t>(static_cast<std::uint8_t*>(at), [](std::uint8_t* memory) { shmdt(memory); });
}

void X11ScreenSource::releaseSegments() {
  if (scratchSegment_) xcb_shm_detach(connection_, scratchSegment_);
  for (const auto& [memory, segment] : segments_) xcb_shm_detach(connection_, segment);
  xcb_flush(connection_);
  segments_.clear();
  scratchSegment_ = 0;
  scratch_.reset();
}

void X11ScreenSource::allocate(int width, int height) {
  width_ = width;
  height_ = height;
  newest_.reset();
  stale_.clear();
  missed_ = {};
  releaseSegments();
  wholeScreenDue_ = damaged_ = true;
  checkedRow_ = 0;

  const std::size_t screenBytes = static_cast<std::size_t>(width) * height * 4;
  if (useShm_) {
    // Half a screen, and at least a row.
    scratchBytes_ = screenBytes / 2 + static_cast<std::size_t>(width) * 4;
    scratch_ = attachSegment(scratchBytes_, &scratchSegment_);
    useShm_ = scratch_ != nullptr;
  }
  platform::PixelBuffer::Allocator allocate = platform::PixelBuffer::ownMemory;
  if (useShm_) {
    // Called on the source's thread, by the pool; plain memory where the server
    // cannot attach another segment (the picture is then filled through the scratch).
    allocate = [this](std::size_t bytes) {
      std::uint32_t segment = 0;
      auto memory = attachSegment(bytes, &segment);
      if (!memory) return platform::PixelBuffer::ownMemory(bytes);
      segments_[memory.get()] = segment;
      return memory;
    };
  }
  pictures_ = std::make_unique<PixelBufferPool>(platform::PixelFormat::BGRA, width, height, kPoolBuffers,
                                                std::move(allocate));
  nv12_ = format_ == platform::PixelFormat::NV12
              ? std::make_unique<PixelBufferPool>(format_, width, height, kPoolBuffers)
              : nullptr;
}

void X11ScreenSource::start(Sink sink, EndHandler ended) {
  if (thread_.joinable()) return;
  sink_ = std::move(sink);
  ended_ = std::move(ended);
  thread_ = std::thread([this] { run(); });
}

void X11ScreenSource::stop() {
  stopping_ = true;
  const std::uint64_t one = 1;
  if (wakeFd_ >= 0) {
    const auto written = ::write(wakeFd_, &one, sizeof one);
    (void)written;  // adding 1 to an eventfd fails only when it is full, and it is awake then
  }
  if (thread_.joinable()) thread_.join();
}

void X11ScreenSource::run() {
  using Clock = std::chrono::steady_clock;
  auto nextAllowed = Clock::now();
  auto nextCheck = nextAllowed + kCheckInterval;
  while (!stopping_) {
    // Events read while waiting for a reply are queued already, with nothing
    // left to read on the socket: take them before polling it.
    while (auto event = own(xcb_poll_for_event(connection_))) handle(event.get());
    if (xcb_connection_has_error(connection_)) {
      if (ended_) ended_("The X11 display went away");
      return;
    }
    auto now = Clock::now();
    if (damage_ && now >= nextCheck) {
      checkBand();
      nextCheck = now + kCheckInterval;
    }
    const bool due = damaged_ || !damage_;
    if (due && now >= nextAllowed) {
      const Delivered delivered = sample();
      nextAllowed = now + (delivered == Delivered::WholeScreen ? std::max(interval_, kWholeScreenInterval) : interval_);
      continue;
    }
    auto wakeAt = Clock::time_point::max();  // nothing to do until the screen changes
    if (due) wakeAt = nextAllowed;
    if (damage_) wakeAt = std::min(wakeAt, nextCheck);
    const int timeout =
        wakeAt == Clock::time_point::max()
            ? -1
            : static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(wakeAt - now).count());
    pollfd fds[2] = {{xcb_get_file_descriptor(connection_), POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    ::poll(fds, 2, timeout);
  }
}

void X11ScreenSource::handle(const void* generic) {
  const auto& event = *static_cast<const xcb_generic_event_t*>(generic);
  const auto type = event.response_type & 0x7f;
  if (damage_ && type == damageNotify_) {
    damaged_ = true;
  } else if (type == XCB_CONFIGURE_NOTIFY) {
    const auto& configure = *static_cast<const xcb_configure_notify_event_t*>(generic);
    if (configure.window == root_ && (configure.width != width_ || configure.height != height_)) {
      allocate(configure.width, configure.height);
    }
  }
}

X11ScreenSource::Changes X11ScreenSource::takeChanges() {
  Changes changes;
  damaged_ = false;
  if (!damage_ || wholeScreenDue_) {
    wholeScreenDue_ = false;
    changes.whole = true;
    // The damage so far is in the whole screen; emptied so that the next change
    // raises a new event.
    if (damage_) xcb_damage_subtract(connection_, damage_, XCB_NONE, XCB_NONE);
    return changes;
  }
  // Takes the damage so far and empties it.
  xcb_damage_subtract(connection_, damage_, XCB_NONE, region_);
  auto region = own(xcb_xfixes_fetch_region_reply(connection_, xcb_xfixes_fetch_region(connection_, region_), nullptr));
  if (region) {
    const auto* rects = xcb_xfixes_fetch_region_rectangles(region.get());
    const int count = xcb_xfixes_fetch_region_rectangles_length(region.get());
    for (int i = 0; i < count; ++i) {
      // Clipped to the screen: damage may reach past it while the size changes.
      const int x = std::max<int>(rects[i].x, 0), y = std::max<int>(rects[i].y, 0);
      const int right = std::min(rects[i].x + rects[i].width, width_);
      const int bottom = std::min(rects[i].y + rects[i].height, height_);
      if (right > x && bottom > y) changes.add({x, y, right - x, bottom - y}, width_, height_);
    }
  }
  changes.add(missed_, width_, height_);
  missed_ = {};
  // Many or large rectangles: one request for the whole screen costs less.
  if (changes.rects.size() > 32 || mostOfScreen(changes.area(width_, height_))) changes = {{}, true};
  return changes;
}

X11ScreenSource::Delivered X11ScreenSource::sample() {
  auto picture = pictures_->acquire();
  auto nv12 = nv12_ ? nv12_->acquire() : nullptr;
  // None free: the damage stays, and is taken at the next tick.
  if (!picture || (nv12_ && !nv12)) return Delivered::Nothing;
  const Changes changes = takeChanges();
  if (!changes.whole && changes.rects.empty()) return Delivered::Nothing;

  auto [entry, isNew] = stale_.try_emplace(picture.get(), Changes{{}, true});
  Changes& lacks = entry->second;
  const std::vector<Rect> whole{{0, 0, width_, height_}};
  const bool readWhole = lacks.whole || changes.whole;
  std::int64_t area = readWhole ? static_cast<std::int64_t>(width_) * height_
                                : lacks.area(width_, height_) + changes.area(width_, height_);
  if (readWhole) {
    fetchInto(whole, *picture);
    // Polling: a screen like the newest picture is no sample.
    if (!damage_ && newest_ &&
        sameRect(picture->plane(0), static_cast<std::size_t>(picture->stride(0)), newest_->plane(0),
                 static_cast<std::size_t>(newest_->stride(0)), width_, height_)) {
      lacks = {};
      return Delivered::Nothing;
    }
  } else {
    // What changed since the picture last held the screen is in the newest one.
    for (const auto& rect : lacks.rects) {
      copyRect(newest_->plane(0) + offsetOf(*newest_, rect.x, rect.y), static_cast<std::size_t>(newest_->stride(0)),
               rect.width, rect.height, picture->mutablePlane(0) + offsetOf(*picture, rect.x, rect.y),
               static_cast<std::size_t>(picture->stride(0)));
    }
    fetchInto(changes.rects, *picture);
  }
  // A whole screen read fresh may also hold changes whose damage is yet to come
  // (they are added then) or never comes: the band check finds those in
  // whichever picture is the newest then, and NV12 buffers are converted whole
  // from this one.
  for (auto& [other, otherLacks] : stale_) {
    if (readWhole && other->format() == platform::PixelFormat::NV12) {
      otherLacks = {{}, true};
    } else {
      otherLacks.add(changes, width_, height_);
    }
  }
  lacks = {};
  newest_ = picture;
  if (nv12) {
    // Like a picture, an NV12 buffer lacks what changed since it was last
    // filled, converted from the newest picture in blocks of 2x2 pixels.
    const auto entry = stale_.try_emplace(nv12.get(), Changes{{}, true}).first;
    std::int64_t converted = 0;
    for (const auto& rect : entry->second.whole ? whole : entry->second.rects) {
      const int x = rect.x & ~1, y = rect.y & ~1;
      const int right = std::min((rect.x + rect.width + 1) & ~1, width_);
      const int bottom = std::min((rect.y + rect.height + 1) & ~1, height_);
      convertBgraRectToNv12(picture->plane(0), picture->stride(0), x, y, right - x, bottom - y, *nv12);
      converted += static_cast<std::int64_t>(right - x) * (bottom - y);
    }
    entry->second = {};
    area = std::max(area, converted);
    sink_(platform::SampleBuffer(std::move(nv12), orientation_));
  } else {
    sink_(platform::SampleBuffer(std::move(picture), orientation_));
  }
  return mostOfScreen(area) ? Delivered::WholeScreen : Delivered::Changes;
}

void X11ScreenSource::checkBand() {
  if (!newest_) return;
  const int rows = (height_ + kCheckBands - 1) / kCheckBands;
  if (checkedRow_ >= height_) checkedRow_ = 0;
  const Rect band{0, checkedRow_, width_, std::min(rows, height_ - checkedRow_)};
  checkedRow_ += rows;
  fetch({band}, [&](const Rect& rect, const std::uint8_t* pixels) {
    if (!sameRect(newest_->plane(0) + offsetOf(*newest_, rect.x, rect.y), static_cast<std::size_t>(newest_->stride(0)),
                  pixels, static_cast<std::size_t>(rect.width) * 4, rect.width, rect.height)) {
      missed_.add(band, width_, height_);
      damaged_ = true;
    }
  });
}

void X11ScreenSource::fetchInto(const std::vector<Rect>& rects, platform::PixelBuffer& picture) {
  const auto segment = segments_.find(picture.plane(0));
  if (rects.size() == 1 && rects[0].width == width_ && rects[0].height == height_ && segment != segments_.end() &&
      picture.stride(0) == width_ * 4) {
    // The whole screen lands in the picture's own memory: nothing to copy.
    if (own(xcb_shm_get_image_reply(
            connection_,
            xcb_shm_get_image(connection_, root_, 0, 0, static_cast<std::uint16_t>(width_),
                              static_cast<std::uint16_t>(height_), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment->second, 0),
            nullptr))) {
      return;
    }
  }
  fetch(rects, [&](const Rect& rect, const std::uint8_t* pixels) {
    copyRect(pixels, static_cast<std::size_t>(rect.width) * 4, rect.width, rect.height,
             picture.mutablePlane(0) + offsetOf(picture, rect.x, rect.y),
             static_cast<std::size_t>(picture.stride(0)));
  });
}

void X11ScreenSource::fetch(const std::vector<Rect>& rects,
                            const std::function<void(const Rect&, const std::uint8_t*)>& use) {
  if (useShm_) {
    // Rectangles land one after the other in the scratch, and all the requests
    // that fit go out before the first reply is awaited; a rectangle larger
    // than the scratch is read in bands of rows.
    struct Pending {
      Rect rect;
      std::size_t at;
      xcb_shm_get_image_cookie_t cookie;
    };
    std::vector<Pending> pending;
    std::size_t offset = 0;
    const auto awaitPending = [&] {
      for (const auto& p : pending) {
        if (own(xcb_shm_get_image_reply(connection_, p.cookie, nullptr))) use(p.rect, scratch_.get() + p.at);
      }
      pending.clear();
      offset = 0;
    };
    for (const auto& rect : rects) {
      const std::size_t rowBytes = static_cast<std::size_t>(rect.width) * 4;
      const int bandRows = static_cast<int>(scratchBytes_ / rowBytes);
      for (int y = rect.y; y < rect.y + rect.height; y += bandRows) {
        const Rect band{rect.x, y, rect.width, std::min(bandRows, rect.y + rect.height - y)};
        const std::size_t bytes = rowBytes * static_cast<std::size_t>(band.height);
        if (offset + bytes > scratchBytes_) awaitPending();
        pending.push_back({band, offset,
                           xcb_shm_get_image(connection_, root_, static_cast<std::int16_t>(band.x),
                                             static_cast<std::int16_t>(band.y), static_cast<std::uint16_t>(band.width),
                                             static_cast<std::uint16_t>(band.height), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP,
                                             scratchSegment_, static_cast<std::uint32_t>(offset))});
        offset += bytes;
      }
    }
    awaitPending();
    return;
  }
  std::vector<xcb_get_image_cookie_t> cookies;
  for (const auto& rect : rects) {
    cookies.push_back(xcb_get_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, root_, static_cast<std::int16_t>(rect.x),
                                    static_cast<std::int16_t>(rect.y), static_cast<std::uint16_t>(rect.width),
                                    static_cast<std::uint16_t>(rect.height), ~0u));
  }
  for (std::size_t i = 0; i < rects.size(); ++i) {
    auto reply = own(xcb_get_image_reply(connection_, cookies[i], nullptr));
    if (!reply || xcb_get_image_data_length(reply.get()) < rects[i].width * rects[i].height * 4) continue;
    use(rects[i], xcb_get_image_data(reply.get()));
  }
}

void X11ScreenSource::Changes::add(const Rect& rect, int width, int height) {
  if (whole) return;
  rects.push_back(rect);
  whole = (rect.width == width && rect.height == height) || rects.size() > 64;
  if (whole) rects.clear();
}

void X11ScreenSource::Changes::add(const Changes& more, int width, int height) {
  if (more.whole) *this = more;
  for (const auto& rect : more.rects) add(rect, width, height);
}

std::int64_t X11ScreenSource::Changes::area(int width, int height) const {
  if (whole) return static_cast<std::int64_t>(width) * height;
  std::int64_t total = 0;
  for (const auto& rect : rects) total += static_cast<std::int64_t>(rect.width) * rect.height;
  return total;
}

}  // namespace zephlo
