#include "zephlo/platform/jpeg_encoder.hpp"

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <cmath>
#include <limits>
#include <vector>

namespace zephlo::platform {
namespace {

// A bitmap with detail in it: a gradient under a pseudo-random speckle.
std::unique_ptr<Bitmap> detailedBitmap(int width, int height) {
  auto bitmap = Bitmap::create(width, height);
  unsigned seed = 12345;
  for (int p = 0; p < 3; ++p) {
    for (int y = 0; y < bitmap->planeHeight(p); ++y) {
      for (int x = 0; x < bitmap->planeWidth(p); ++x) {
        seed = seed * 1103515245 + 12345;
        const int speckle = static_cast<int>((seed >> 16) % 40);
        bitmap->mutablePlane(p)[y * bitmap->planeWidth(p) + x] =
            static_cast<std::uint8_t>((x * 2 + y + p * 60 + speckle) % 256);
      }
    }
  }
  return bitmap;
}

struct Decoded {
  int width = 0, height = 0;
  std::vector<std::uint8_t> gray;
};

Decoded decode(const Bytes& jpeg) {
  Decoded out;
  tjhandle handle = tjInitDecompress();
  int subsampling = 0, colourspace = 0;
  if (tjDecompressHeader3(handle, jpeg.data(), jpeg.size(), &out.width, &out.height, &subsampling, &colourspace) == 0) {
    out.gray.resize(static_cast<std::size_t>(out.width) * out.height);
    if (tjDecompress2(handle, jpeg.data(), jpeg.size(), out.gray.data(), out.width, 0, out.height, TJPF_GRAY, 0) != 0) {
      out.gray.clear();
    }
  }
  tjDestroy(handle);
  return out;
}

TEST(EncodeJpegTest, DecodesToTheBitmapsSizeAndPicture) {
  for (auto [width, height] : {std::pair{195, 422}, std::pair{422, 195}, std::pair{33, 17}, std::pair{1, 1}}) {
    SCOPED_TRACE(testing::Message() << width << "x" << height);
    auto bitmap = detailedBitmap(width, height);
    SharedBytes jpeg = encodeJpeg(*bitmap, 0.95);
    ASSERT_NE(jpeg, nullptr);
    const Decoded decoded = decode(*jpeg);
    ASSERT_EQ(decoded.width, width);
    ASSERT_EQ(decoded.height, height);
    ASSERT_FALSE(decoded.gray.empty());
    // The decoded grey is the bitmap's luma, give or take compression.
    double squares = 0;
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) {
        const double d = decoded.gray[y * width + x] - bitmap->at(0, x, y);
        squares += d * d;
      }
    const double psnr = 10 * std::log10(255.0 * 255.0 / std::max(squares / (width * height), 1e-9));
    EXPECT_GT(psnr, 30.0);
  }
}

TEST(EncodeJpegTest, LowerQualityGivesFewerBytesAndOutOfRangeIsTheNearestEnd) {
  auto bitmap = detailedBitmap(195, 422);
  const Bytes lowest = *encodeJpeg(*bitmap, 0.0);
  const Bytes highest = *encodeJpeg(*bitmap, 1.0);
  EXPECT_LT(encodeJpeg(*bitmap, 0.2)->size(), encodeJpeg(*bitmap, 0.6)->size());
  EXPECT_LT(encodeJpeg(*bitmap, 0.6)->size(), encodeJpeg(*bitmap, 0.95)->size());
  EXPECT_EQ(*encodeJpeg(*bitmap, -3.0), lowest);
  EXPECT_EQ(*encodeJpeg(*bitmap, std::numeric_limits<double>::quiet_NaN()), lowest);
  EXPECT_EQ(*encodeJpeg(*bitmap, 7.0), highest);
  EXPECT_NE(lowest, highest);
}

}  // namespace
}  // namespace zephlo::platform
