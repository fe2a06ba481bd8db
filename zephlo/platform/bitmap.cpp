#include "zephlo/platform/bitmap.hpp"

#include "zephlo/platform/pixel_buffer.hpp"

namespace zephlo::platform {

std::unique_ptr<Bitmap> Bitmap::create(int width, int height) {
  if (width <= 0 || height <= 0 || width > PixelBuffer::kMaxDimension ||
      height > PixelBuffer::kMaxDimension) {
    return nullptr;
  }
  return std::unique_ptr<Bitmap>(new Bitmap(width, height));
}

Bitmap::Bitmap(int width, int height) : width_(width), height_(height) {
  const std::size_t luma = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  const std::size_t chroma =
      static_cast<std::size_t>(planeWidth(1)) * static_cast<std::size_t>(planeHeight(1));
  data_ = std::make_shared<Bytes>(luma + 2 * chroma, 0);
}

std::size_t Bitmap::offset(int plane) const {
  const std::size_t luma = static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_);
  const std::size_t chroma =
      static_cast<std::size_t>(planeWidth(1)) * static_cast<std::size_t>(planeHeight(1));
  return plane == 0 ? 0 : luma + static_cast<std::size_t>(plane - 1) * chroma;
}

}  // namespace zephlo::platform
