#include "apps/broadcast/canvas.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

#include "apps/broadcast/pixel_conversion.hpp"

namespace zephlo {
namespace {

using platform::PixelBuffer;
using platform::PixelFormat;

bool near(Rgb a, Rgb b, int tolerance = 3) {
  return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance && std::abs(a.b - b.b) <= tolerance;
}

class CanvasTest : public ::testing::TestWithParam<PixelFormat> {};

// Fills clipped to the buffer, gradients from one colour to the other, and
// digits drawn as dots.
TEST_P(CanvasTest, FillsGradientsAndDigits) {
  auto buffer = PixelBuffer::create(GetParam(), 64, 64);
  Canvas canvas(*buffer);
  canvas.fill({0, 0, 64, 64}, {0, 0, 0});
  canvas.fill({4, 2, 100, 2}, {200, 40, 40});
  EXPECT_TRUE(near(canvas.at(4, 2), {200, 40, 40}));
  EXPECT_TRUE(near(canvas.at(63, 3), {200, 40, 40}));
  EXPECT_TRUE(near(canvas.at(4, 4), {0, 0, 0}));
  EXPECT_TRUE(near(canvas.at(2, 2), {0, 0, 0}));

  canvas.verticalGradient({0, 0, 64, 32}, {0, 0, 0}, {250, 250, 250});
  canvas.horizontalGradient({0, 32, 64, 16}, {250, 0, 0}, {0, 0, 250});
  EXPECT_TRUE(near(canvas.at(10, 0), {0, 0, 0}));
  EXPECT_TRUE(near(canvas.at(10, 31), {250, 250, 250}));
  EXPECT_GT(canvas.at(10, 20).g, canvas.at(10, 10).g);
  EXPECT_TRUE(near(canvas.at(0, 40), {250, 0, 0}, 12));
  EXPECT_TRUE(near(canvas.at(63, 40), {0, 0, 250}, 12));

  canvas.text(0, 48, "1", 2, {255, 255, 255});
  // "1": the stem is the middle column, the top-left dot is off.
  EXPECT_GT(canvas.at(4, 54).g, 200);
  EXPECT_LT(canvas.at(0, 48).g, 60);
  EXPECT_EQ(Canvas::textWidth("12:34", 2), 5 * 12 - 2);
}

INSTANTIATE_TEST_SUITE_P(Formats, CanvasTest, ::testing::Values(PixelFormat::BGRA, PixelFormat::NV12));

TEST(PixelConversionTest, Nv12ConversionMatchesThePlatformsOwn) {
  auto bgra = PixelBuffer::create(PixelFormat::BGRA, 7, 5);
  for (int y = 0; y < 5; ++y) {
    for (int x = 0; x < 7; ++x) {
      std::uint8_t* p = bgra->mutablePlane(0) + y * bgra->stride(0) + 4 * x;
      p[0] = static_cast<std::uint8_t>(30 * x);
      p[1] = static_cast<std::uint8_t>(50 * y);
      p[2] = static_cast<std::uint8_t>(255 - 20 * x - 10 * y);
      p[3] = 255;
    }
  }
  auto expected = PixelBuffer::nv12From(*bgra);
  auto converted = PixelBuffer::create(PixelFormat::NV12, 7, 5);
  convertBgraToNv12(bgra->plane(0), bgra->stride(0), 7, 5, *converted);
  for (int plane = 0; plane < 2; ++plane) {
    for (int y = 0; y < expected->planeHeight(plane); ++y) {
      const int rowBytes = plane == 0 ? expected->planeWidth(0) : 2 * expected->planeWidth(1);
      for (int i = 0; i < rowBytes; ++i) {
        const int a = expected->plane(plane)[y * expected->stride(plane) + i];
        const int b = converted->plane(plane)[y * converted->stride(plane) + i];
        EXPECT_LE(std::abs(a - b), 1) << "plane " << plane << " row " << y << " byte " << i;
      }
    }
  }
}

// The copy in BGR order shows in the Wayland tests' pictures.
TEST(PixelConversionTest, ScreenPixelsInRgbOrderBecomeOpaqueBgra) {
  // Two rows of three pixels, five bytes of row padding, garbage in the fourth byte.
  const int stride = 17;
  std::uint8_t screen[2 * stride] = {};
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 3; ++x) {
      std::uint8_t* p = screen + y * stride + 4 * x;
      p[0] = static_cast<std::uint8_t>(10 + x + 3 * y);
      p[1] = static_cast<std::uint8_t>(100 + x);
      p[2] = static_cast<std::uint8_t>(200 + y);
      p[3] = 7;
    }
  }
  auto out = PixelBuffer::create(PixelFormat::BGRA, 3, 2);
  copyToOpaqueBgra(screen, stride, 3, 2, true, *out);
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 3; ++x) {
      const std::uint8_t* in = screen + y * stride + 4 * x;
      const std::uint8_t* p = out->plane(0) + y * out->stride(0) + 4 * x;
      EXPECT_EQ(p[0], in[2]) << x << "," << y;
      EXPECT_EQ(p[1], in[1]);
      EXPECT_EQ(p[2], in[0]) << x << "," << y;
      EXPECT_EQ(p[3], 255);
    }
  }
}

}  // namespace
}  // namespace zephlo
