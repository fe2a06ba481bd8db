#include "zephlo/platform/image_renderer.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <tuple>

#include "zephlo/platform/pixel_buffer.hpp"

namespace zephlo::platform {
namespace {

struct Bgr {
  int b, g, r;
};

std::shared_ptr<PixelBuffer> drawBgra(int width, int height, const std::function<Bgr(int, int)>& colour) {
  auto buffer = PixelBuffer::create(PixelFormat::BGRA, width, height);
  for (int y = 0; y < height; ++y) {
    std::uint8_t* row = buffer->mutablePlane(0) + y * buffer->stride(0);
    for (int x = 0; x < width; ++x) {
      const Bgr c = colour(x, y);
      row[4 * x] = static_cast<std::uint8_t>(c.b);
      row[4 * x + 1] = static_cast<std::uint8_t>(c.g);
      row[4 * x + 2] = static_cast<std::uint8_t>(c.r);
      row[4 * x + 3] = 255;
    }
  }
  return buffer;
}

// A busy picture: gradients, stripes one pixel wide, solid blocks.
Bgr busyPicture(int x, int y) {
  if (y > 1800 && y < 2200 && x > 100 && x < 700) return {0, 0, 255};  // a red block
  if (y > 600 && y < 900 && (x / 3) % 2 == 0) return {30, 30, 30};    // fine stripes
  return {(x * 255) / 1170, (y * 255) / 2532, ((x + y) * 3) % 256};
}

double meanAbsoluteDifference(const Bitmap& a, const Bitmap& b, int plane) {
  double total = 0;
  for (int y = 0; y < a.planeHeight(plane); ++y)
    for (int x = 0; x < a.planeWidth(plane); ++x) total += std::abs(a.at(plane, x, y) - b.at(plane, x, y));
  return total / (a.planeWidth(plane) * a.planeHeight(plane));
}

// An empty expected extent: the scale leaves no pixel (0.009 of 100x80) or goes
// beyond the largest bitmap (1e6), and nothing renders.
TEST(ImageRendererTest, RendersTheScaledExtent) {
  struct Case {
    int width, height;
    double scale;
    ImageExtent expected;
  } cases[] = {
      {100, 80, 0.009, {}},
      {100, 80, 1e6, {}},
      {100, 80, -std::numeric_limits<double>::infinity(), {}},
      {1170, 2532, 1.0 / 3, {390, 844}},  // a 3x screen at its point size, after the refusals
      {100, 50, 2.0, {200, 100}},          // enlarged
      {7, 5, 0.5, {4, 3}},                 // halves round up
  };
  ImageRenderer renderer;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " by " << c.scale);
    auto bgra = drawBgra(c.width, c.height, [](int x, int y) { return Bgr{x % 256, y % 256, 7}; });
    for (const auto& buffer : {bgra, PixelBuffer::nv12From(*bgra)}) {
      const Image image = Image(buffer).byApplyingLanczosScale(c.scale);
      EXPECT_EQ(image.extent(), c.expected);
      auto bitmap = renderer.render(image);
      if (c.expected.isEmpty()) {
        EXPECT_EQ(bitmap, nullptr);
        continue;
      }
      ASSERT_NE(bitmap, nullptr);
      EXPECT_EQ((ImageExtent{bitmap->width(), bitmap->height()}), c.expected);
      EXPECT_EQ(bitmap->bytes()->size(),
                static_cast<std::size_t>(c.expected.width * c.expected.height +
                                         2 * ((c.expected.width + 1) / 2) * ((c.expected.height + 1) / 2)));
    }
  }
}

TEST(ImageRendererTest, OrientationTurnsThePictureAsTheExifCodeSays) {
  enum Corner { TopLeft, TopRight, BottomRight, BottomLeft };
  const struct Case {
    std::uint32_t code;
    bool swapsAxes;
    Corner marker;
  } cases[] = {
      {0, false, TopLeft},    {1, false, TopLeft},    {2, false, TopRight}, {3, false, BottomRight},
      {4, false, BottomLeft}, {5, true, TopLeft},     {6, true, TopRight},  {7, true, BottomRight},
      {8, true, BottomLeft},  {9, false, TopLeft},
  };
  // 80x40 with a white 8x8 marker in the top-left corner, rendered at half size.
  auto bgra = drawBgra(80, 40, [](int x, int y) { return x < 8 && y < 8 ? Bgr{255, 255, 255} : Bgr{0, 0, 0}; });
  ImageRenderer renderer;
  for (const auto& buffer : {bgra, PixelBuffer::nv12From(*bgra)}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(c.code);
      auto bitmap = renderer.render(Image(buffer).byApplyingLanczosScale(0.5).byApplyingOrientation(c.code));
      ASSERT_NE(bitmap, nullptr);
      EXPECT_EQ((ImageExtent{bitmap->width(), bitmap->height()}),
                (c.swapsAxes ? ImageExtent{20, 40} : ImageExtent{40, 20}));
      const int right = bitmap->width() - 1, bottom = bitmap->height() - 1;
      const std::uint8_t corners[] = {bitmap->at(0, 0, 0), bitmap->at(0, right, 0), bitmap->at(0, right, bottom),
                                      bitmap->at(0, 0, bottom)};
      for (int corner = TopLeft; corner <= BottomLeft; ++corner)
        EXPECT_TRUE(corner == c.marker ? corners[corner] > 240 : corners[corner] < 15)
            << "corner " << corner << " is " << int{corners[corner]};
    }
  }
  // Turns compose: two quarter turns are a half turn.
  auto halfTurn = renderer.render(Image(bgra).byApplyingOrientation(3));
  auto twoQuarterTurns = renderer.render(Image(bgra).byApplyingOrientation(6).byApplyingOrientation(6));
  ASSERT_TRUE(halfTurn && twoQuarterTurns);
  EXPECT_EQ(*halfTurn->bytes(), *twoQuarterTurns->bytes());
}

TEST(ImageRendererTest, BgraAndNv12OfOnePictureRenderAlike) {
  auto bgra = drawBgra(1170, 2532, busyPicture);
  auto nv12 = PixelBuffer::nv12From(*bgra);
  ImageRenderer renderer;
  const double factor = 844.0 / 2532 * 0.5;
  auto fromBgra = renderer.render(Image(bgra).byApplyingLanczosScale(factor));
  auto fromNv12 = renderer.render(Image(nv12).byApplyingLanczosScale(factor));
  ASSERT_TRUE(fromBgra && fromNv12);
  // Chroma takes different paths and differs a little at sharp colour edges.
  for (int plane = 0; plane < 3; ++plane)
    EXPECT_LT(meanAbsoluteDifference(*fromBgra, *fromNv12, plane), plane == 0 ? 0.5 : 3.0) << "plane " << plane;
  // Inside the red block both carry JFIF red: Y 76, Cb 85, Cr 255.
  for (const Bitmap* bitmap : {fromBgra.get(), fromNv12.get()}) {
    EXPECT_NEAR(bitmap->at(0, 60, 333), 76, 1);
    EXPECT_NEAR(bitmap->at(1, 30, 166), 85, 1);
    EXPECT_NEAR(bitmap->at(2, 30, 166), 255, 1);
  }
}

TEST(ImageRendererTest, BlocksCutShortAtTheEdgesKeepTheirColour) {
  // Sizes that are no multiple of the box shrink (or, unshrunk, of the chroma
  // blocks) leave partial edge blocks; a flat colour must stay flat to the last
  // pixel of every plane.
  const Bgr colour{40, 200, 120};
  const double expected[3] = {
      0.299 * colour.r + 0.587 * colour.g + 0.114 * colour.b,
      -0.168736 * colour.r - 0.331264 * colour.g + 0.5 * colour.b + 128,
      0.5 * colour.r - 0.418688 * colour.g - 0.081312 * colour.b + 128,
  };
  ImageRenderer renderer;
  for (const auto& [width, height, scale] : {std::tuple{1003, 2011, 0.16}, std::tuple{997, 1001, 0.1},
                                             std::tuple{301, 203, 0.0625}, std::tuple{301, 203, 0.5}}) {
    auto bgra = drawBgra(width, height, [&](int, int) { return colour; });
    for (const auto& buffer : {bgra, PixelBuffer::nv12From(*bgra)}) {
      SCOPED_TRACE(testing::Message() << width << "x" << height << " at " << scale << " from "
                                      << (buffer == bgra ? "BGRA" : "NV12"));
      auto bitmap = renderer.render(Image(buffer).byApplyingLanczosScale(scale));
      ASSERT_NE(bitmap, nullptr);
      for (int plane = 0; plane < 3; ++plane) {
        int worst = 0;
        for (int y = 0; y < bitmap->planeHeight(plane); ++y)
          for (int x = 0; x < bitmap->planeWidth(plane); ++x)
            worst = std::max(worst, static_cast<int>(std::lround(std::abs(bitmap->at(plane, x, y) - expected[plane]))));
        EXPECT_LE(worst, 1) << "plane " << plane;
      }
    }
  }
}

TEST(ImageRendererTest, ReadsRowsThroughTheStride) {
  // 33 pixels wide pads every plane row; ignoring the stride shears the bar.
  auto bgra = drawBgra(33, 64, [](int x, int) { return x >= 10 && x < 14 ? Bgr{255, 255, 255} : Bgr{0, 0, 0}; });
  ASSERT_GT(bgra->stride(0), 33 * 4);
  ImageRenderer renderer;
  for (const auto& buffer : {bgra, PixelBuffer::nv12From(*bgra)}) {
    auto bitmap = renderer.render(Image(buffer));
    ASSERT_NE(bitmap, nullptr);
    for (int y = 0; y < 64; ++y) {
      EXPECT_GT(bitmap->at(0, 11, y), 240) << y;
      EXPECT_LT(bitmap->at(0, 20, y), 15) << y;
    }
  }
}

}  // namespace
}  // namespace zephlo::platform
