// Image: a lazily evaluated picture. It wraps a shared PixelBuffer without copying
// it and records the work still to do: a Lanczos scale and an orientation. No
// pixel is touched until an ImageRenderer renders it, so taking a screen sample
// costs nothing and the scaling happens at most once per rendered frame.
//
// A small immutable value; copies share the pixel buffer. Any thread.
#pragma once

#include <cstdint>
#include <memory>

#include "zephlo/platform/pixel_buffer.hpp"

namespace zephlo::platform {

// A size in pixels. Empty when there is nothing to render.
struct ImageExtent {
  int width = 0;
  int height = 0;
  bool isEmpty() const { return width <= 0 || height <= 0; }
  bool operator==(const ImageExtent&) const = default;
};

// How a picture is turned for display, as an EXIF orientation code says: a 2×2
// matrix of 0/±1 taking stored coordinates (x right, y down, about the centre) to
// displayed ones. Code 6 turns a quarter turn clockwise, 8 a quarter turn
// anticlockwise, 3 a half turn; 2 and 4 mirror left-right and top-bottom, 5 and 7
// mirror across the diagonals. 1 and any unknown code leave the picture as it is.
struct ImageOrientation {
  int a = 1, b = 0, c = 0, d = 1;  // displayed = (a·x + b·y, c·x + d·y)

  static ImageOrientation fromExif(std::uint32_t code);
  // This turn followed by `next`.
  ImageOrientation then(const ImageOrientation& next) const;
  bool isIdentity() const { return a == 1 && b == 0 && c == 0 && d == 1; }
  bool swapsAxes() const { return a == 0; }
  bool operator==(const ImageOrientation&) const = default;
};

class Image {
 public:
  // An image over `buffer`, which must not be null.
  explicit Image(std::shared_ptr<const PixelBuffer> buffer);

  // The same picture resampled by `scale` in both directions (on top of any scale
  // already pending).
  Image byApplyingLanczosScale(double scale) const;
  // The same picture turned as the EXIF `code` says (after any pending turn).
  Image byApplyingOrientation(std::uint32_t code) const;

  // The size a render yields: the buffer's size times the pending scale, rounded,
  // and swapped by a quarter turn. Empty when the scale is not a positive finite
  // number, when the result is smaller than one pixel or larger than
  // PixelBuffer::kMaxDimension.
  ImageExtent extent() const;
  // The same before the pending orientation.
  ImageExtent scaledExtent() const;

  const std::shared_ptr<const PixelBuffer>& pixelBuffer() const { return buffer_; }
  double scale() const { return scale_; }
  const ImageOrientation& orientation() const { return orientation_; }

 private:
  std::shared_ptr<const PixelBuffer> buffer_;
  double scale_ = 1.0;
  ImageOrientation orientation_;
};

}  // namespace zephlo::platform
