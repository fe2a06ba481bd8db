#include "zephlo/capture/frame_loop.hpp"

#include <gtest/gtest.h>

#include <vector>

#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo {
namespace {

using namespace std::chrono_literals;
using platform::Duration;

// A 4x4 frame whose luma is all `shade`.
std::unique_ptr<platform::Bitmap> frameOf(std::uint8_t shade) {
  auto bitmap = platform::Bitmap::create(4, 4);
  for (int i = 0; i < 16; ++i) bitmap->mutablePlane(0)[i] = shade;
  return bitmap;
}

class FakeSource : public ZPHFrameSource {
 public:
  void capturingWillStart() override { ++willStart; }
  void capturingWillStop() override { ++willStop; }
  std::unique_ptr<platform::Bitmap> newFrame(double scale) override {
    renders.push_back(platform::MainQueue::shared().now());
    scales.push_back(scale);
    if (!alwaysNew) hasNew = false;
    if (nothingToRender) return nullptr;
    if (make) return make();
    return frameOf(changing ? static_cast<std::uint8_t>(renders.size()) : 7);
  }
  bool isNewFrameAvailable() override { return alwaysNew || hasNew; }

  int willStart = 0, willStop = 0;
  std::vector<Duration> renders;
  std::vector<double> scales;
  bool alwaysNew = true;  // a new sample before every tick
  bool hasNew = false;
  bool changing = true;   // each render shows something else
  bool nothingToRender = false;
  std::function<std::unique_ptr<platform::Bitmap>()> make;  // replaces the shaded frames
};

// Keeps each frame's callback; completes sends as `completion` says.
class FakeDelegate : public ZPHFrameLoopDelegate {
 public:
  enum class Completion { Hold, Succeed, Fail };

  double scale() override { return 0.5; }
  void handleFrame(FrameImage image, std::function<void(bool)> callback) override {
    frames.push_back(image);
    sentAt.push_back(platform::MainQueue::shared().now());
    if (completion == Completion::Hold) {
      callbacks.push_back(std::move(callback));
    } else {
      callback(completion == Completion::Succeed);
    }
  }
  bool shouldCaptureFrame() override { return allowed; }

  Completion completion = Completion::Succeed;
  bool allowed = true;
  std::vector<FrameImage> frames;
  std::vector<Duration> sentAt;
  std::vector<std::function<void(bool)>> callbacks;
};

class CountingObserver : public ZPHFrameLoopObserver {
 public:
  void willCaptureFrame() override { ++will; }
  void didCaptureFrame(const FrameImage& image) override { images.push_back(image); }
  int will = 0;
  std::vector<FrameImage> images;
};

class FrameLoopTest : public testing::MainQueueTest {
 protected:
  void SetUp() override {
    MainQueueTest::SetUp();
    loop = ZPHFrameLoop::create(delegate);
    loop->setSource(source);
  }
  void TearDown() override {
    loop->stop();
    MainQueueTest::TearDown();
  }

  std::shared_ptr<FakeDelegate> delegate = std::make_shared<FakeDelegate>();
  std::shared_ptr<FakeSource> source = std::make_shared<FakeSource>();
  std::shared_ptr<ZPHFrameLoop> loop;
};

TEST_F(FrameLoopTest, SlowSendDelaysNextCaptureBy25ms) {
  // The first send takes 110 ms; later ones finish at once.
  delegate->completion = FakeDelegate::Completion::Hold;
  loop->start();
  ASSERT_EQ(delegate->callbacks.size(), 1u);
  queue().after(110ms, [this] {
    delegate->completion = FakeDelegate::Completion::Succeed;
    delegate->callbacks[0](true);
  });
  advance(300ms);
  // Ticks at 75 and 100 ms find the send in flight and capture nothing; the tick
  // at 125 ms captures and, chosen before its capture, schedules the next at 200.
  EXPECT_EQ(source->renders, (std::vector<Duration>{0ms, 125ms, 200ms, 275ms}));
  EXPECT_EQ(delegate->sentAt, (std::vector<Duration>{0ms, 125ms, 200ms, 275ms}));
  EXPECT_EQ(source->scales, std::vector<double>(4, 0.5));
}

TEST_F(FrameLoopTest, StartTwiceKeepsOneTickChain) {
  loop->start();
  loop->start();
  EXPECT_TRUE(loop->isRunning());
  EXPECT_EQ(source->willStart, 1);
  EXPECT_EQ(queue().pendingCount(), 1u);
  advance(150ms);
  EXPECT_EQ(source->renders, (std::vector<Duration>{0ms, 75ms, 150ms}));
}

TEST_F(FrameLoopTest, StopCancelsTheTickAndAlwaysTellsTheSource) {
  loop->stop();  // already stopped: the source still hears of it
  EXPECT_EQ(source->willStop, 1);
  EXPECT_FALSE(loop->isRunning());

  loop->start();
  advance(75ms);
  loop->stop();
  EXPECT_EQ(source->willStop, 2);
  EXPECT_FALSE(loop->isRunning());
  EXPECT_EQ(queue().pendingCount(), 0u);
  advance(1s);
  EXPECT_EQ(source->renders.size(), 2u);
}

TEST_F(FrameLoopTest, TickWithoutAFrameWaitsTheIdlePeriod) {
  source->nothingToRender = true;
  loop->start();
  EXPECT_TRUE(delegate->frames.empty());
  source->nothingToRender = false;
  advance(74ms);
  EXPECT_EQ(source->renders.size(), 1u);
  advance(1ms);
  EXPECT_EQ(source->renders, (std::vector<Duration>{0ms, 75ms}));
  EXPECT_EQ(delegate->sentAt, (std::vector<Duration>{75ms}));
}

TEST_F(FrameLoopTest, UnchangedFrameIsDroppedUntilInvalidated) {
  source->changing = false;
  loop->start();
  advance(150ms);
  EXPECT_EQ(source->renders.size(), 3u);
  EXPECT_EQ(delegate->frames.size(), 1u);

  loop->invalidateFrame();
  EXPECT_TRUE(loop->needsUpdate());
  advance(75ms);
  EXPECT_EQ(delegate->frames.size(), 2u);
  EXPECT_EQ(*delegate->frames[0]->bytes(), *delegate->frames[1]->bytes());
}

TEST_F(FrameLoopTest, FrameOfAnotherLengthIsNotADuplicate) {
  // All-zero 4x4 and then all-zero 2x2 bitmaps: equal over the shorter length.
  source->make = [] { return platform::Bitmap::create(4, 4); };
  loop->start();
  source->make = [] { return platform::Bitmap::create(2, 2); };
  advance(75ms);
  ASSERT_EQ(delegate->frames.size(), 2u);
  EXPECT_EQ(delegate->frames[1]->width(), 2);
}

TEST_F(FrameLoopTest, FailedSendResendsAnUnchangedFrame) {
  source->changing = false;
  source->alwaysNew = false;  // nothing new after the first render
  source->hasNew = true;
  delegate->completion = FakeDelegate::Completion::Fail;
  loop->start();
  EXPECT_TRUE(loop->needsUpdate());
  delegate->completion = FakeDelegate::Completion::Succeed;
  advance(75ms);
  EXPECT_EQ(delegate->frames.size(), 2u);
  // Sent successfully and no new sample: the still screen costs nothing.
  EXPECT_FALSE(loop->needsUpdate());
  advance(300ms);
  EXPECT_EQ(source->renders.size(), 2u);
  EXPECT_EQ(delegate->frames.size(), 2u);
}

TEST_F(FrameLoopTest, ObserversSeeEveryRenderedFrameIncludingDropped) {
  auto observer = std::make_shared<CountingObserver>();
  auto removed = std::make_shared<CountingObserver>();
  loop->registerFrameLoopObserver(observer);
  loop->registerFrameLoopObserver(observer);  // a set: registered once
  loop->registerFrameLoopObserver(removed);
  loop->removeFrameLoopObserver(removed);
  source->changing = false;
  loop->start();
  advance(150ms);
  EXPECT_EQ(delegate->frames.size(), 1u);
  EXPECT_EQ(observer->will, 3);
  ASSERT_EQ(observer->images.size(), 3u);
  for (const auto& image : observer->images) EXPECT_NE(image, nullptr);
  EXPECT_EQ(removed->will, 0);

  // No frame due: no capture to watch.
  source->alwaysNew = false;
  advance(150ms);
  EXPECT_EQ(observer->will, 3);

  // A due capture that renders nothing is still reported, with null.
  loop->invalidateFrame();
  source->nothingToRender = true;
  advance(75ms);
  EXPECT_EQ(observer->will, 4);
  ASSERT_EQ(observer->images.size(), 4u);
  EXPECT_EQ(observer->images.back(), nullptr);
}

TEST_F(FrameLoopTest, NoCaptureWhileTheDelegateSaysNoOrIsGone) {
  delegate->allowed = false;
  loop->start();
  advance(75ms);
  EXPECT_TRUE(source->renders.empty());

  delegate->allowed = true;
  std::weak_ptr<FakeDelegate> gone = delegate;
  delegate.reset();
  ASSERT_TRUE(gone.expired());
  advance(300ms);
  EXPECT_TRUE(source->renders.empty());
  EXPECT_TRUE(loop->isRunning());  // the ticks go on until stop
  EXPECT_EQ(queue().pendingCount(), 1u);
}

TEST_F(FrameLoopTest, RestartDuringASendTicksFastUntilTheCallback) {
  delegate->completion = FakeDelegate::Completion::Hold;
  loop->start();  // a send in flight from time 0
  advance(10ms);
  loop->stop();
  advance(10ms);
  loop->start();  // at 20 ms: the tick only keeps the chain, next at 45 ms
  EXPECT_EQ(source->willStart, 2);
  queue().after(30ms, [this] { delegate->callbacks[0](true); });  // at 50 ms
  advance(50ms);
  EXPECT_EQ(source->renders, (std::vector<Duration>{0ms, 70ms}));
}

TEST_F(FrameLoopTest, UnchangedScreenIsNotResentAfterRestart) {
  source->changing = false;
  loop->start();
  loop->stop();
  loop->start();
  EXPECT_EQ(source->renders.size(), 2u);
  EXPECT_EQ(delegate->frames.size(), 1u);
}

TEST_F(FrameLoopTest, FrameLivesUntilTheCallbackEvenAfterTheLoopIsGone) {
  delegate->completion = FakeDelegate::Completion::Hold;
  loop->start();
  std::weak_ptr<const platform::Bitmap> frame = delegate->frames[0];
  delegate->frames.clear();
  loop->stop();
  loop.reset();  // stopped and released: the loop is gone
  EXPECT_FALSE(frame.expired());
  delegate->callbacks[0](false);
  EXPECT_TRUE(frame.expired());
  loop = ZPHFrameLoop::create(delegate);  // for TearDown
}

TEST_F(FrameLoopTest, MissingSourceCapturesNothing) {
  loop->setSource(nullptr);
  loop->start();
  loop->invalidateFrame();
  EXPECT_TRUE(loop->needsUpdate());
  advance(75ms);
  EXPECT_TRUE(delegate->frames.empty());
  EXPECT_TRUE(loop->isRunning());
}

}  // namespace
}  // namespace zephlo
