// libzephlo_frame_bench.so: the production frame path behind one C function, for
// comparing it from other languages with other imaging stacks on the same
// sample. Each call renders a frame at the session scale 0.5 on an 844-point
// screen, compares it with the previous call's frame and JPEG-encodes it at
// quality 0.6, timing each step.
//
// Calls are expected from one thread at a time; each thread keeps its own
// renderer and last frame.
#include <chrono>
#include <cstdint>
#include <cstring>

#include "zephlo/platform/image.hpp"
#include "zephlo/platform/image_renderer.hpp"
#include "zephlo/platform/jpeg_encoder.hpp"
#include "zephlo/platform/pixel_buffer.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using zephlo::platform::PixelBuffer;
using zephlo::platform::PixelFormat;

constexpr double kScreenHeight = 844;
constexpr double kSessionScale = 0.5;
constexpr double kJpegQuality = 0.6;

std::int64_t nanosecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
}

// Copies tightly packed rows into the buffer's padded rows.
void copyPlane(PixelBuffer& buffer, int plane, const std::uint8_t* from, int rowBytes) {
  for (int y = 0; y < buffer.planeHeight(plane); ++y) {
    std::memcpy(buffer.mutablePlane(plane) + static_cast<std::ptrdiff_t>(y) * buffer.stride(plane),
                from + static_cast<std::ptrdiff_t>(y) * rowBytes, static_cast<std::size_t>(rowBytes));
  }
}

}  // namespace

// Runs the frame path once on `bgra` (when not null) or on `nv12` (the Y plane,
// then the interleaved Cb/Cr plane, rows without padding), both w×h. Stores the
// nanoseconds of scale and render in ns[0], of JPEG encoding in ns[1] and of the
// whole path (render, compare, JPEG) in ns[2]; writes the JPEG into `jpeg` and
// returns its size, or -1 when it does not fit in `cap` bytes or the input is
// unusable.
extern "C" __attribute__((visibility("default"))) int frame_bench(const std::uint8_t* bgra,
                                                                   const std::uint8_t* nv12, int w, int h,
                                                                   std::int64_t ns[3], std::uint8_t* jpeg,
                                                                   int cap) {
  if ((!bgra && !nv12) || !ns || !jpeg || cap < 0) return -1;
  auto buffer = PixelBuffer::create(bgra ? PixelFormat::BGRA : PixelFormat::NV12, w, h);
  if (!buffer) return -1;
  // Filling the sample is the capture side's work and is not timed.
  if (bgra) {
    copyPlane(*buffer, 0, bgra, 4 * w);
  } else {
    copyPlane(*buffer, 0, nv12, w);
    copyPlane(*buffer, 1, nv12 + static_cast<std::ptrdiff_t>(w) * h, 2 * buffer->planeWidth(1));
  }

  thread_local zephlo::platform::ImageRenderer renderer;
  thread_local zephlo::SharedBytes lastFrame;
  thread_local std::int64_t unchangedFrames = 0;

  const auto start = Clock::now();
  const double factor = kScreenHeight / h * kSessionScale;
  auto bitmap = renderer.render(zephlo::platform::Image(buffer).byApplyingLanczosScale(factor));
  ns[0] = nanosecondsSince(start);
  if (!bitmap) return -1;

  zephlo::SharedBytes bytes = bitmap->bytes();
  const bool unchanged = lastFrame && lastFrame->size() == bytes->size() &&
                         std::memcmp(lastFrame->data(), bytes->data(), bytes->size()) == 0;
  lastFrame = bytes;
  if (unchanged) ++unchangedFrames;

  // An unchanged frame would be dropped by the frame loop; here it is encoded
  // all the same so that every call measures the whole path.
  const auto encodeStart = Clock::now();
  zephlo::SharedBytes encoded = zephlo::platform::encodeJpeg(*bitmap, kJpegQuality);
  ns[1] = nanosecondsSince(encodeStart);
  ns[2] = nanosecondsSince(start);
  if (!encoded || encoded->size() > static_cast<std::size_t>(cap)) return -1;
  std::memcpy(jpeg, encoded->data(), encoded->size());
  return static_cast<int>(encoded->size());
}
