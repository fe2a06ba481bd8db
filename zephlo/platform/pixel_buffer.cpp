#include "zephlo/platform/pixel_buffer.hpp"

#include <algorithm>

namespace zephlo::platform {

namespace {
constexpr int kRowAlignment = 64;
int alignRow(int bytes) { return (bytes + kRowAlignment - 1) / kRowAlignment * kRowAlignment; }

std::uint8_t toByte(double v) { return static_cast<std::uint8_t>(std::clamp(v + 0.5, 0.0, 255.0)); }
}  // namespace

std::shared_ptr<std::uint8_t> PixelBuffer::ownMemory(std::size_t bytes) {
  return std::shared_ptr<std::uint8_t>(new std::uint8_t[bytes](), std::default_delete<std::uint8_t[]>());
}

std::shared_ptr<PixelBuffer> PixelBuffer::create(PixelFormat format, int width, int height,
                                                 const Allocator& allocate) {
  if (width <= 0 || height <= 0 || width > kMaxDimension || height > kMaxDimension) return nullptr;
  std::shared_ptr<PixelBuffer> buffer(new PixelBuffer(format, width, height));
  buffer->memory_ = allocate(buffer->bytes_);
  return buffer->memory_ ? buffer : nullptr;
}

PixelBuffer::PixelBuffer(PixelFormat format, int width, int height)
    : format_(format), width_(width), height_(height) {
  for (int p = 0; p < planeCount(); ++p) {
    // A BGRA pixel takes 4 bytes, a Y sample 1, a Cb/Cr pair 2.
    const int bytesPerSample = format_ == PixelFormat::BGRA ? 4 : (p == 0 ? 1 : 2);
    strides_[p] = alignRow(planeWidth(p) * bytesPerSample);
    offsets_[p] = bytes_;
    bytes_ += static_cast<std::size_t>(strides_[p]) * static_cast<std::size_t>(planeHeight(p));
  }
}

std::shared_ptr<PixelBuffer> PixelBuffer::nv12From(const PixelBuffer& bgra) {
  if (bgra.format() != PixelFormat::BGRA) return nullptr;
  auto nv12 = create(PixelFormat::NV12, bgra.width(), bgra.height());
  // JFIF YCbCr: BT.601 weights over the full range.
  for (int y = 0; y < bgra.height(); ++y) {
    const std::uint8_t* in = bgra.plane(0) + static_cast<std::ptrdiff_t>(y) * bgra.stride(0);
    std::uint8_t* luma = nv12->mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * nv12->stride(0);
    for (int x = 0; x < bgra.width(); ++x) {
      luma[x] = toByte(0.299 * in[4 * x + 2] + 0.587 * in[4 * x + 1] + 0.114 * in[4 * x]);
    }
  }
  for (int cy = 0; cy < nv12->planeHeight(1); ++cy) {
    std::uint8_t* chroma = nv12->mutablePlane(1) + static_cast<std::ptrdiff_t>(cy) * nv12->stride(1);
    for (int cx = 0; cx < nv12->planeWidth(1); ++cx) {
      double b = 0, g = 0, r = 0;
      int count = 0;
      for (int y = 2 * cy; y < std::min(2 * cy + 2, bgra.height()); ++y) {
        const std::uint8_t* in = bgra.plane(0) + static_cast<std::ptrdiff_t>(y) * bgra.stride(0);
        for (int x = 2 * cx; x < std::min(2 * cx + 2, bgra.width()); ++x, ++count) {
          b += in[4 * x];
          g += in[4 * x + 1];
          r += in[4 * x + 2];
        }
      }
      b /= count;
      g /= count;
      r /= count;
      chroma[2 * cx] = toByte(-0.168736 * r - 0.331264 * g + 0.5 * b + 128);
      chroma[2 * cx + 1] = toByte(0.5 * r - 0.418688 * g - 0.081312 * b + 128);
    }
  }
  return nv12;
}

int PixelBuffer::planeWidth(int plane) const { return plane == 0 ? width_ : (width_ + 1) / 2; }
int PixelBuffer::planeHeight(int plane) const { return plane == 0 ? height_ : (height_ + 1) / 2; }

}  // namespace zephlo::platform
