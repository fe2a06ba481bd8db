#include "apps/service_load/frame_pattern.hpp"

#include <algorithm>

#include "zephlo/platform/bitmap.hpp"
#include "zephlo/platform/jpeg_encoder.hpp"

namespace zephlo::service {

std::vector<SharedBytes> patternFrames(int width, int height, int count, double quality) {
  std::vector<SharedBytes> frames;
  for (int n = 0; n < count; ++n) {
    auto bitmap = platform::Bitmap::create(width, height);
    if (!bitmap) return {};
    // Luma: a vertical gradient, a bright bar that moves down by frame, and a
    // block in the middle.
    std::uint8_t* y = bitmap->mutablePlane(0);
    const int barTop = (height / std::max(count, 1)) * n;
    const int barHeight = std::max(height / 12, 1);
    for (int row = 0; row < height; ++row) {
      const bool inBar = row >= barTop && row < barTop + barHeight;
      for (int col = 0; col < width; ++col) {
        std::uint8_t value = static_cast<std::uint8_t>(40 + (row * 120) / std::max(height, 1));
        if (inBar) value = 235;
        const bool inBlock = col > width / 4 && col < 3 * width / 4 && row > 2 * height / 5 && row < 3 * height / 5;
        if (inBlock) value = static_cast<std::uint8_t>(90 + 20 * (n % 4));
        y[row * width + col] = value;
      }
    }
    // Chroma: the block takes a hue of its own in every frame.
    for (int plane = 1; plane <= 2; ++plane) {
      std::uint8_t* c = bitmap->mutablePlane(plane);
      const int w = bitmap->planeWidth(plane);
      const int h = bitmap->planeHeight(plane);
      for (int row = 0; row < h; ++row)
        for (int col = 0; col < w; ++col) {
          const bool inBlock = col > w / 4 && col < 3 * w / 4 && row > 2 * h / 5 && row < 3 * h / 5;
          const int hue = plane == 1 ? (n * 70) % 256 : 255 - (n * 110) % 256;
          c[row * w + col] = static_cast<std::uint8_t>(inBlock ? hue : 128);
        }
    }
    SharedBytes jpeg = platform::encodeJpeg(*bitmap, quality);
    if (!jpeg) return {};
    frames.push_back(std::move(jpeg));
  }
  return frames;
}

}  // namespace zephlo::service
