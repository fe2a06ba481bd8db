#include "zephlo/platform/pixel_buffer.hpp"

#include <gtest/gtest.h>

namespace zephlo::platform {
namespace {

TEST(PixelBufferTest, LaysOutPlanesWithAlignedStridesAndRefusesSizesItCannotHold) {
  const struct Case {
    PixelFormat format;
    int width, height;
    int planes;
    int chromaWidth, chromaHeight;
  } cases[] = {
      {PixelFormat::BGRA, 1170, 2532, 1, 0, 0},
      {PixelFormat::NV12, 33, 17, 2, 17, 9},
  };
  for (const auto& c : cases) {
    auto buffer = PixelBuffer::create(c.format, c.width, c.height);
    ASSERT_NE(buffer, nullptr);
    ASSERT_EQ(buffer->planeCount(), c.planes);
    const int bytesPerPixel = c.format == PixelFormat::BGRA ? 4 : 1;
    EXPECT_GE(buffer->stride(0), c.width * bytesPerPixel);
    EXPECT_EQ(buffer->stride(0) % 64, 0);
    if (c.planes == 2) {
      EXPECT_EQ(buffer->planeWidth(1), c.chromaWidth);
      EXPECT_EQ(buffer->planeHeight(1), c.chromaHeight);
      EXPECT_GE(buffer->stride(1), 2 * c.chromaWidth);
      // The planes do not overlap.
      EXPECT_GE(buffer->plane(1), buffer->plane(0) + buffer->stride(0) * c.height);
    }
  }
  // Sizes it cannot hold give no buffer.
  for (auto [width, height] : {std::pair{0, 10}, std::pair{10, 0}, std::pair{-4, 10},
                               std::pair{PixelBuffer::kMaxDimension + 1, 10}}) {
    EXPECT_EQ(PixelBuffer::create(PixelFormat::BGRA, width, height), nullptr);
  }
}

}  // namespace
}  // namespace zephlo::platform
