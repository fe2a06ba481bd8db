#include "zephlo/capture/replay_kit_frame_source.hpp"

#include <gtest/gtest.h>

#include <optional>

#include "zephlo/platform/screen.hpp"
#include "zephlo/testing/log_capture.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo {
namespace {

using platform::PixelBuffer;
using platform::PixelFormat;
using platform::SampleBuffer;

// A grey picture of `shade` with a white square marker in the top-left corner
// (one tenth of the width).
std::shared_ptr<PixelBuffer> picture(int width, int height, std::uint8_t shade = 0, bool marker = true) {
  auto buffer = PixelBuffer::create(PixelFormat::BGRA, width, height);
  const int side = width / 10;
  for (int y = 0; y < height; ++y) {
    std::uint8_t* row = buffer->mutablePlane(0) + y * buffer->stride(0);
    for (int x = 0; x < width; ++x) {
      const std::uint8_t v = marker && x < side && y < side ? 255 : shade;
      row[4 * x] = row[4 * x + 1] = row[4 * x + 2] = v;
      row[4 * x + 3] = 255;
    }
  }
  return buffer;
}

class ReplayKitFrameSourceTest : public testing::MainQueueTest {
 protected:
  void SetUp() override {
    MainQueueTest::SetUp();
    saved_ = platform::Screen::main();
    platform::Screen::setMain({390, 844, 3});
  }
  void TearDown() override {
    platform::Screen::setMain(saved_);
    MainQueueTest::TearDown();
  }

  void feed(std::shared_ptr<const PixelBuffer> buffer, std::optional<std::int64_t> orientation = std::nullopt) {
    source.processSampleBuffer(SampleBuffer(std::move(buffer), orientation), platform::kSampleBufferTypeVideo);
  }

  ZPHReplayKitFrameSource source;

 private:
  platform::ScreenBounds saved_;
};

TEST_F(ReplayKitFrameSourceTest, PhoneSampleRendersAtScreenPointsTimesScale) {
  feed(picture(1170, 2532));
  EXPECT_TRUE(source.isNewFrameAvailable());
  auto frame = source.newFrame(0.5);  // 844 / 2532 * 0.5 of the pixel size
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->width(), 195);
  EXPECT_EQ(frame->height(), 422);
  EXPECT_FALSE(source.isNewFrameAvailable());
  // The sample is kept: asked again, it renders again.
  auto again = source.newFrame(0.5);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(*again->bytes(), *frame->bytes());
}

TEST_F(ReplayKitFrameSourceTest, SidewaysOrientationsAreSwapped) {
  enum Corner { TopLeft, TopRight, BottomLeft };
  // A missing attachment reads as 0; upside down (3) and the mirrored codes are
  // left alone; 6 turns anticlockwise and 8 clockwise, as the picture is turned.
  const struct {
    std::optional<std::int64_t> attachment;
    bool turned;
    Corner marker;
  } cases[] = {{std::nullopt, false, TopLeft}, {0, false, TopLeft}, {1, false, TopLeft}, {3, false, TopLeft},
               {5, false, TopLeft},            {6, true, BottomLeft}, {8, true, TopRight}};
  // 200x400 pixels rendered at 100x200 (the screen is 844 points high).
  const double scale = 0.5 * 400 / 844;
  auto buffer = picture(200, 400);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.attachment.value_or(-1));
    feed(buffer, c.attachment);
    auto frame = source.newFrame(scale);
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(frame->width(), c.turned ? 200 : 100);
    ASSERT_EQ(frame->height(), c.turned ? 100 : 200);
    const int right = frame->width() - 1, bottom = frame->height() - 1;
    EXPECT_EQ(frame->at(0, 0, 0) > 200, c.marker == TopLeft);
    EXPECT_EQ(frame->at(0, right, 0) > 200, c.marker == TopRight);
    EXPECT_EQ(frame->at(0, 0, bottom) > 200, c.marker == BottomLeft);
    EXPECT_LT(frame->at(0, right, bottom), 20);
  }
}

TEST_F(ReplayKitFrameSourceTest, SamplesThatAreNotVideoPicturesChangeNothingAndStopDropsTheSample) {
  EXPECT_FALSE(source.isNewFrameAvailable());  // nor does a fresh source have anything
  testing::LogCapture log;
  source.processSampleBuffer(SampleBuffer(picture(60, 120)), platform::kSampleBufferTypeAudioApp);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"ignoring non-video sample"});
  EXPECT_FALSE(source.isNewFrameAvailable());
  EXPECT_EQ(source.newFrame(0.5), nullptr);

  log.clear();
  source.processSampleBuffer(SampleBuffer(), platform::kSampleBufferTypeVideo);  // no pixel buffer
  EXPECT_TRUE(log.lines().empty());
  EXPECT_FALSE(source.isNewFrameAvailable());
  EXPECT_EQ(source.newFrame(0.5), nullptr);

  // Stopping drops the sample but not the flag.
  feed(picture(60, 120));
  source.capturingWillStart();
  source.capturingWillStop();
  EXPECT_TRUE(source.isNewFrameAvailable());
  EXPECT_EQ(source.newFrame(0.5), nullptr);
  feed(picture(60, 120));
  EXPECT_NE(source.newFrame(0.5), nullptr);
}

}  // namespace
}  // namespace zephlo
