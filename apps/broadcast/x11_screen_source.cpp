#include "apps/broadcast/x11_screen_source.hpp"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "apps/broadcast/pixel_conversion.hpp"

namespace zephlo {

std::unique_ptr<X11ScreenSource> X11ScreenSource::open(const std::string& display, platform::PixelFormat format,
                                                       std::int64_t orientation, double sampleRate,
                                                       std::string* error) {
  int screenNumber = 0;
  xcb_connection_t* connection = xcb_connect(display.empty() ? nullptr : display.c_str(), &screenNumber);
  if (xcb_connection_has_error(connection)) {
    xcb_disconnect(connection);
    *error = "cannot open X11 display " + (display.empty() ? std::string(std::getenv("DISPLAY") ? std::getenv("DISPLAY") : "(unset)") : display);
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
  std::unique_ptr<X11ScreenSource> source(new X11ScreenSource(connection, screen->root, screen->width_in_pixels,
                                                              screen->height_in_pixels, format, orientation,
                                                              sampleRate));
  if (!source->attachSegment(error)) return nullptr;
  return source;
}

X11ScreenSource::X11ScreenSource(xcb_connection_t* connection, std::uint32_t root, int width, int height,
                                 platform::PixelFormat format, std::int64_t orientation, double sampleRate)
    : connection_(connection),
      root_(root),
      width_(width),
      height_(height),
      orientation_(orientation),
      pool_(format, width, height),
      ticker_(sampleRate) {}

void X11ScreenSource::start(Sink sink, EndHandler ended) {
  ended_ = std::move(ended);
  ticker_.start([this](platform::Duration sinceStart) { return sampleAt(sinceStart); }, std::move(sink));
}

void X11ScreenSource::stop() { ticker_.stop(); }

X11ScreenSource::~X11ScreenSource() {
  ticker_.stop();
  if (segment_) xcb_shm_detach(connection_, segment_);
  xcb_flush(connection_);
  if (shm_) shmdt(shm_);
  xcb_disconnect(connection_);
}

bool X11ScreenSource::attachSegment(std::string* error) {
  auto* version = xcb_shm_query_version_reply(connection_, xcb_shm_query_version(connection_), nullptr);
  if (!version) {
    *error = "the X11 display has no MIT-SHM extension";
    return false;
  }
  std::free(version);
  const std::size_t size = static_cast<std::size_t>(width_) * height_ * 4;
  shmId_ = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
  if (shmId_ < 0) {
    *error = std::string("shmget: ") + std::strerror(errno);
    return false;
  }
  shm_ = static_cast<std::uint8_t*>(shmat(shmId_, nullptr, 0));
  if (shm_ == reinterpret_cast<std::uint8_t*>(-1)) {
    shm_ = nullptr;
    shmctl(shmId_, IPC_RMID, nullptr);
    *error = std::string("shmat: ") + std::strerror(errno);
    return false;
  }
  segment_ = xcb_generate_id(connection_);
  auto* attached = xcb_request_check(connection_, xcb_shm_attach_checked(connection_, segment_, static_cast<std::uint32_t>(shmId_), 0));
  // Marked for removal now: it goes away with the last detach, even after a crash.
  shmctl(shmId_, IPC_RMID, nullptr);
  if (attached) {
    std::free(attached);
    segment_ = 0;
    *error = "the X11 server could not attach the shared memory segment";
    return false;
  }
  return true;
}

bool X11ScreenSource::grab() {
  auto* reply = xcb_shm_get_image_reply(
      connection_,
      xcb_shm_get_image(connection_, root_, 0, 0, static_cast<std::uint16_t>(width_), static_cast<std::uint16_t>(height_),
                        ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment_, 0),
      nullptr);
  if (!reply) return false;
  std::free(reply);
  return true;
}

std::optional<platform::SampleBuffer> X11ScreenSource::sampleAt(platform::Duration) {
  if (!grab()) {
    if (xcb_connection_has_error(connection_) && ended_) {
      std::exchange(ended_, nullptr)("The X11 display went away");
    }
    return std::nullopt;
  }
  const std::size_t size = static_cast<std::size_t>(width_) * height_ * 4;
  if (last_.size() == size && std::memcmp(last_.data(), shm_, size) == 0) return std::nullopt;
  last_.assign(shm_, shm_ + size);

  auto buffer = pool_.acquire();
  if (!buffer) return std::nullopt;
  if (buffer->format() == platform::PixelFormat::BGRA) {
    copyBgra(shm_, width_ * 4, width_, height_, *buffer);
    // The server leaves the fourth byte undefined; make the pixels opaque.
    for (int y = 0; y < height_; ++y) {
      std::uint8_t* row = buffer->mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * buffer->stride(0);
      for (int x = 0; x < width_; ++x) row[4 * x + 3] = 255;
    }
  } else {
    convertBgraToNv12(shm_, width_ * 4, width_, height_, *buffer);
  }
  return platform::SampleBuffer(std::move(buffer), orientation_);
}

}  // namespace zephlo
