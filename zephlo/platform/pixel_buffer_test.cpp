#include "zephlo/platform/pixel_buffer.hpp"

#include <gtest/gtest.h>

namespace zephlo::platform {
namespace {

TEST(PixelBufferTest, LaysOutPlanesWithAlignedStrides) {
  const struct Case {
    PixelFormat format;
    int width, height;
    int planes;
    int chromaWidth, chromaHeight;
  } cases[] = {
      {PixelFormat::BGRA, 1170, 2532, 1, 0, 0},
      {PixelFormat::NV12, 1170, 2532, 2, 585, 1266},
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
}

TEST(PixelBufferTest, RefusesSizesItCannotHold) {
  for (auto [width, height] : {std::pair{0, 10}, std::pair{10, 0}, std::pair{-4, 10},
                               std::pair{PixelBuffer::kMaxDimension + 1, 10}}) {
    EXPECT_EQ(PixelBuffer::create(PixelFormat::BGRA, width, height), nullptr);
  }
}

TEST(PixelBufferTest, Nv12FromBgraCarriesJfifYCbCr) {
  const struct {
    std::uint8_t b, g, r;
    int y, cb, cr;
  } colours[] = {{0, 0, 255, 76, 85, 255}, {255, 255, 255, 255, 128, 128}, {0, 0, 0, 0, 128, 128},
                 {255, 0, 0, 29, 255, 107}};
  for (const auto& c : colours) {
    auto bgra = PixelBuffer::create(PixelFormat::BGRA, 3, 3);
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 3; ++x) {
        std::uint8_t* px = bgra->mutablePlane(0) + y * bgra->stride(0) + 4 * x;
        px[0] = c.b, px[1] = c.g, px[2] = c.r, px[3] = 255;
      }
    auto nv12 = PixelBuffer::nv12From(*bgra);
    ASSERT_NE(nv12, nullptr);
    EXPECT_EQ(nv12->plane(0)[nv12->stride(0) * 2 + 2], c.y);
    // The odd edge pair averages only the pixels that exist.
    EXPECT_EQ(nv12->plane(1)[nv12->stride(1) + 2], c.cb);
    EXPECT_EQ(nv12->plane(1)[nv12->stride(1) + 3], c.cr);
  }
  EXPECT_EQ(PixelBuffer::nv12From(*PixelBuffer::create(PixelFormat::NV12, 4, 4)), nullptr);
}

}  // namespace
}  // namespace zephlo::platform
