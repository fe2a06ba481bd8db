#include "apps/broadcast/image_folder_source.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <cmath>
#include <cstring>
#include <fstream>

#include "apps/broadcast/canvas.hpp"
#include "zephlo/platform/bitmap.hpp"
#include "zephlo/platform/jpeg_encoder.hpp"

namespace zephlo {
namespace {

using namespace std::chrono_literals;
using platform::PixelFormat;

// A JPEG of `width` x `height` pixels of `colour`.
std::vector<std::uint8_t> jpegOf(int width, int height, Rgb colour) {
  auto bitmap = platform::Bitmap::create(width, height);
  const double y = 0.299 * colour.r + 0.587 * colour.g + 0.114 * colour.b;
  const double planes[] = {y, 128 + 0.564 * (colour.b - y), 128 + 0.713 * (colour.r - y)};
  for (int p = 0; p < 3; ++p)
    std::memset(bitmap->mutablePlane(p), static_cast<int>(std::lround(std::clamp(planes[p], 0.0, 255.0))),
                static_cast<std::size_t>(bitmap->planeWidth(p)) * bitmap->planeHeight(p));
  const auto jpeg = platform::encodeJpeg(*bitmap, 0.95);
  return {jpeg->begin(), jpeg->end()};
}

bool near(Rgb a, Rgb b) { return std::abs(a.r - b.r) <= 8 && std::abs(a.g - b.g) <= 8 && std::abs(a.b - b.b) <= 8; }

class ImageFolderSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("zephlo-images-" + std::to_string(::getpid()));
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  void write(const std::string& name, const std::vector<std::uint8_t>& bytes) {
    std::ofstream(dir_ / name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  Rgb colourAt(const platform::SampleBuffer& sample, int x, int y) {
    return Canvas(const_cast<platform::PixelBuffer&>(*sample.imageBuffer())).at(x, y);
  }

  std::filesystem::path dir_;
};

TEST_F(ImageFolderSourceTest, ShowsTheJpegsInNameOrderOneASecondThenStartsAgain) {
  // A folder without JPEGs, or none at all, is refused.
  std::string error;
  write("notes.txt", {1, 2, 3});
  EXPECT_FALSE(ImageFolderSource::open(dir_.string(), PixelFormat::BGRA, 8, 8, 1, 30, &error));
  EXPECT_NE(error.find("no JPEG"), std::string::npos) << error;
  error.clear();
  EXPECT_FALSE(ImageFolderSource::open((dir_ / "missing").string(), PixelFormat::BGRA, 8, 8, 1, 30, &error));
  EXPECT_FALSE(error.empty());

  write("b.jpg", jpegOf(16, 16, {0, 200, 0}));
  write("a.jpeg", jpegOf(16, 16, {200, 0, 0}));
  write("c.JPG", jpegOf(16, 16, {0, 0, 200}));
  write("broken.jpg", {0xFF, 0xD8, 0x00, 0x01});  // does not decode: shows black
  auto source = ImageFolderSource::open(dir_.string(), PixelFormat::BGRA, 32, 32, 1, 30, &error);
  ASSERT_TRUE(source) << error;

  const Rgb expected[] = {{200, 0, 0}, {0, 200, 0}, {0, 0, 0}, {0, 0, 200}, {200, 0, 0}};
  for (int second = 0; second < 5; ++second) {
    auto sample = source->sampleAt(std::chrono::seconds(second) + 500ms);
    ASSERT_TRUE(sample);
    EXPECT_TRUE(near(colourAt(*sample, 16, 16), expected[second])) << "second " << second;
  }
}

TEST_F(ImageFolderSourceTest, APictureIsLetterboxedOnBlackAndKeepsItsBufferWithinItsSecond) {
  write("wide.jpg", jpegOf(40, 20, {250, 250, 250}));
  std::string error;
  for (PixelFormat format : {PixelFormat::BGRA, PixelFormat::NV12}) {
    auto source = ImageFolderSource::open(dir_.string(), format, 100, 100, 8, 30, &error);
    ASSERT_TRUE(source) << error;
    auto sample = source->sampleAt(0ms);
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->orientationAttachment(), 8);
    EXPECT_EQ(sample->imageBuffer()->format(), format);
    // 40x20 fits 100x100 as 100x50, centred: rows 25 to 74.
    EXPECT_TRUE(near(colourAt(*sample, 50, 10), {0, 0, 0}));
    EXPECT_TRUE(near(colourAt(*sample, 50, 50), {250, 250, 250}));
    EXPECT_TRUE(near(colourAt(*sample, 2, 30), {250, 250, 250}));
    EXPECT_TRUE(near(colourAt(*sample, 50, 90), {0, 0, 0}));
    EXPECT_EQ(source->sampleAt(999ms)->imageBuffer(), sample->imageBuffer());
  }
}

}  // namespace
}  // namespace zephlo
