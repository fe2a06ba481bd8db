// A procedurally drawn phone screen for the capture benchmarks: status bar and
// lines of text (thin dark strokes on a light ground), a gradient header, a noisy
// photograph, list rows with icons and one-pixel separators, and a row of noisy
// thumbnails. The same seed draws the same picture.
#pragma once

#include <memory>

#include "zephlo/platform/pixel_buffer.hpp"

namespace zephlo::bench {

// The canonical sample: a 390x844-point screen at 3 pixels per point.
constexpr int kPhoneWidth = 1170;
constexpr int kPhoneHeight = 2532;

std::shared_ptr<platform::PixelBuffer> drawPhoneScreen(int width = kPhoneWidth, int height = kPhoneHeight);

}  // namespace zephlo::bench
