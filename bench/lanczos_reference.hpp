// An exact Lanczos-3 resampling in double precision, the yardstick that the
// capture benchmark measures the production renderer against (luma PSNR).
#pragma once

#include <vector>

#include "zephlo/platform/bitmap.hpp"
#include "zephlo/platform/pixel_buffer.hpp"

namespace zephlo::bench {

struct LumaPlane {
  int width = 0, height = 0;
  std::vector<double> values;
};

// The sample's luma, unrounded: JFIF weights for BGRA, the Y plane for NV12.
LumaPlane lumaOf(const platform::PixelBuffer& buffer);
// `in` resampled to width × height with a Lanczos-3 kernel widened by the
// reduction, pixel centres aligned, edges clamped.
LumaPlane lanczos3(const LumaPlane& in, int width, int height);
// Peak signal-to-noise ratio of the bitmap's Y plane against `reference`, in dB.
double lumaPsnr(const platform::Bitmap& bitmap, const LumaPlane& reference);

}  // namespace zephlo::bench
