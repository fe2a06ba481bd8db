// Bitmap: a rendered, uncompressed frame. Three 8-bit planes of JFIF YCbCr 4:2:0
// (Y at full size, Cb and Cr at half width and height, rounded up), stored one
// after the other without padding in a single byte buffer. That buffer is what
// the frame loop compares to spot an unchanged screen, and the planes go to the
// JPEG encoder as they are, without a round trip through RGB.
//
// Filled once by the renderer that creates it, then shared read-only
// (`std::shared_ptr<const Bitmap>`): the frame loop holds a frame until its send
// completes, and the bytes can outlive the bitmap as the loop's last-frame data.
//
// THREADING: written only before it is shared; after that read from any thread.
#pragma once

#include <cstdint>
#include <memory>

#include "zephlo/base/value.hpp"

namespace zephlo::platform {

class Bitmap {
 public:
  // A zero-filled bitmap, or null when the size is not positive or too large.
  static std::unique_ptr<Bitmap> create(int width, int height);

  Bitmap(const Bitmap&) = delete;
  Bitmap& operator=(const Bitmap&) = delete;

  int width() const { return width_; }
  int height() const { return height_; }

  // Plane 0 is Y, 1 is Cb, 2 is Cr. The stride of a plane is its width.
  int planeWidth(int plane) const { return plane == 0 ? width_ : (width_ + 1) / 2; }
  int planeHeight(int plane) const { return plane == 0 ? height_ : (height_ + 1) / 2; }
  const std::uint8_t* plane(int plane) const { return data_->data() + offset(plane); }
  std::uint8_t* mutablePlane(int plane) { return data_->data() + offset(plane); }

  // Every plane's bytes, in plane order. Shared, so a holder keeps them without a
  // copy after the bitmap is gone.
  SharedBytes bytes() const { return data_; }

  // One sample of a plane; for tests and checks, not for pixel loops.
  std::uint8_t at(int plane, int x, int y) const { return this->plane(plane)[y * planeWidth(plane) + x]; }

 private:
  Bitmap(int width, int height);
  std::size_t offset(int plane) const;

  int width_;
  int height_;
  std::shared_ptr<Bytes> data_;
};

}  // namespace zephlo::platform
