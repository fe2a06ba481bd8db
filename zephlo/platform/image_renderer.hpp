// ImageRenderer: turns a lazy Image into a Bitmap. It resamples with a Lanczos-3
// filter (libswscale), applies the pending orientation on the reduced picture and
// writes JFIF YCbCr 4:2:0 planes ready for the JPEG encoder.
//
// Large reductions first average whole blocks of source pixels (an integer box
// shrink that leaves the picture at least kLanczosReduction times the output
// size), so the Lanczos step reads a fraction of the sample; the result stays
// within a fraction of a grey level of a pure Lanczos-3 resampling. NV12 samples
// stay in YCbCr throughout; BGRA samples are converted to YCbCr 4:2:0 while they
// are averaged.
//
// Owned by its one user (the frame source); keeps a scaler per geometry it has
// seen and its scratch buffers between renders. Not thread-safe: one thread (the
// main queue, for the frame source) uses it.
#pragma once

#include <memory>

#include "zephlo/platform/bitmap.hpp"
#include "zephlo/platform/image.hpp"

namespace zephlo::platform {

class ImageRenderer {
 public:
  // The least reduction left to the Lanczos step after the box shrink.
  static constexpr double kLanczosReduction = 3.0;

  ImageRenderer();
  ~ImageRenderer();
  ImageRenderer(const ImageRenderer&) = delete;
  ImageRenderer& operator=(const ImageRenderer&) = delete;

  // The whole extent of `image`, rendered; null when the extent is empty or the
  // scaler cannot be set up.
  std::unique_ptr<Bitmap> render(const Image& image);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zephlo::platform
