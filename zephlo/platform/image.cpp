#include "zephlo/platform/image.hpp"

#include <cmath>
#include <utility>

namespace zephlo::platform {

ImageOrientation ImageOrientation::fromExif(std::uint32_t code) {
  switch (code) {
    case 2: return {-1, 0, 0, 1};
    case 3: return {-1, 0, 0, -1};
    case 4: return {1, 0, 0, -1};
    case 5: return {0, 1, 1, 0};
    case 6: return {0, -1, 1, 0};
    case 7: return {0, -1, -1, 0};
    case 8: return {0, 1, -1, 0};
    default: return {};
  }
}

ImageOrientation ImageOrientation::then(const ImageOrientation& next) const {
  // next · this
  return {next.a * a + next.b * c, next.a * b + next.b * d,
          next.c * a + next.d * c, next.c * b + next.d * d};
}

Image::Image(std::shared_ptr<const PixelBuffer> buffer) : buffer_(std::move(buffer)) {}

Image Image::byApplyingLanczosScale(double scale) const {
  Image scaled = *this;
  scaled.scale_ = scale_ * scale;
  return scaled;
}

Image Image::byApplyingOrientation(std::uint32_t code) const {
  Image turned = *this;
  turned.orientation_ = orientation_.then(ImageOrientation::fromExif(code));
  return turned;
}

ImageExtent Image::scaledExtent() const {
  if (!buffer_ || !std::isfinite(scale_) || scale_ <= 0) return {};
  const double width = buffer_->width() * scale_;
  const double height = buffer_->height() * scale_;
  if (width < 1 || height < 1) return {};
  if (width > PixelBuffer::kMaxDimension || height > PixelBuffer::kMaxDimension) return {};
  return {static_cast<int>(std::lround(width)), static_cast<int>(std::lround(height))};
}

ImageExtent Image::extent() const {
  const ImageExtent scaled = scaledExtent();
  if (orientation_.swapsAxes()) return {scaled.height, scaled.width};
  return scaled;
}

}  // namespace zephlo::platform
