#include "zephlo/capture/frame_loop.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo {
namespace {

using namespace std::chrono_literals;
using platform::Duration;
using Times = std::vector<Duration>;
using ::testing::AllOf, ::testing::Each, ::testing::ElementsAre, ::testing::NotNull, ::testing::SizeIs;

// Renders a 4x4 frame of one luma shade: the render count while `changing`,
// else 7. `make`, when set, renders instead (null: nothing to render).
class FakeSource : public ZPHFrameSource {
 public:
  void capturingWillStart() override { ++willStart; }
  void capturingWillStop() override { ++willStop; }
  std::unique_ptr<platform::Bitmap> newFrame(double) override {
    renders.push_back(platform::MainQueue::shared().now());
    if (make) return make();
    auto bitmap = platform::Bitmap::create(4, 4);
    std::fill_n(bitmap->mutablePlane(0), 16, changing ? static_cast<std::uint8_t>(renders.size()) : 7);
    return bitmap;
  }
  bool isNewFrameAvailable() override { return alwaysNew; }

  int willStart = 0, willStop = 0;
  Times renders;
  bool alwaysNew = true;  // a new sample before every tick, else none
  bool changing = true;
  std::function<std::unique_ptr<platform::Bitmap>()> make;
};

// Completes each send at once with `result`, or holds its callback when unset.
class FakeDelegate : public ZPHFrameLoopDelegate {
 public:
  double scale() override { return 0.5; }
  void handleFrame(FrameImage image, std::function<void(bool)> callback) override {
    frames.push_back(image);
    sentAt.push_back(platform::MainQueue::shared().now());
    if (!result) return callbacks.push_back(std::move(callback));
    callback(*result);
  }
  bool shouldCaptureFrame() override { return allowed; }

  std::optional<bool> result = true;
  bool allowed = true;
  std::vector<FrameImage> frames;
  Times sentAt;
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
  FrameLoopTest() { loop->setSource(source); }
  void TearDown() override {
    loop->stop();
    MainQueueTest::TearDown();
  }

  std::shared_ptr<FakeDelegate> delegate = std::make_shared<FakeDelegate>();
  std::shared_ptr<FakeSource> source = std::make_shared<FakeSource>();
  std::shared_ptr<ZPHFrameLoop> loop = ZPHFrameLoop::create(delegate);
};

TEST_F(FrameLoopTest, SlowSendDelaysNextCaptureBy25ms) {
  // The first send takes 110 ms; later ones finish at once.
  delegate->result.reset();
  loop->start();
  ASSERT_EQ(delegate->callbacks.size(), 1u);
  queue().after(110ms, [this] {
    delegate->result = true;
    delegate->callbacks[0](true);
  });
  advance(300ms);
  // Ticks at 75 and 100 ms find the send in flight and capture nothing; the tick
  // at 125 ms captures and, chosen before its capture, schedules the next at 200.
  EXPECT_EQ(source->renders, (Times{0ms, 125ms, 200ms, 275ms}));
  EXPECT_EQ(delegate->sentAt, (Times{0ms, 125ms, 200ms, 275ms}));
}

TEST_F(FrameLoopTest, RestartDuringASendTicksFastUntilTheCallbackAndTheFrameOutlivesTheLoop) {
  delegate->result.reset();
  loop->start();  // a send in flight from time 0
  advance(10ms);
  loop->stop();
  advance(10ms);
  loop->start();  // at 20 ms: the tick only keeps the chain, next at 45 ms
  EXPECT_EQ(source->willStart, 2);
  queue().after(30ms, [this] { delegate->callbacks[0](true); });  // at 50 ms
  advance(50ms);
  EXPECT_EQ(source->renders, (Times{0ms, 70ms}));

  // The frame in flight lives until its callback, even after the loop is gone.
  std::weak_ptr<const platform::Bitmap> frame = delegate->frames[1];
  delegate->frames.clear();
  loop->stop();
  loop.reset();
  EXPECT_FALSE(frame.expired());
  delegate->callbacks[1](false);
  EXPECT_TRUE(frame.expired());
  loop = ZPHFrameLoop::create(delegate);  // for TearDown
}

TEST_F(FrameLoopTest, StartAndStopKeepOneTickChainAndAlwaysTellTheSource) {
  loop->stop();  // already stopped: the source still hears of it
  EXPECT_EQ(source->willStop, 1);
  loop->start();
  loop->start();
  EXPECT_EQ(source->willStart, 1);
  EXPECT_EQ(queue().pendingCount(), 1u);
  advance(150ms);
  EXPECT_EQ(source->renders, (Times{0ms, 75ms, 150ms}));

  loop->stop();
  EXPECT_EQ(source->willStop, 2);
  EXPECT_EQ(queue().pendingCount(), 0u);
  advance(1s);
  EXPECT_EQ(source->renders.size(), 3u);
}

// Observers see every due capture, the dropped ones too.
TEST_F(FrameLoopTest, UnchangedFrameGoesOutAgainOnlyAfterAnInvalidationOrAFailedSend) {
  auto observer = std::make_shared<CountingObserver>();
  auto removed = std::make_shared<CountingObserver>();
  loop->registerFrameLoopObserver(observer);
  loop->registerFrameLoopObserver(observer);  // a set: registered once
  loop->registerFrameLoopObserver(removed);
  loop->removeFrameLoopObserver(removed);
  source->changing = false;
  loop->start();
  advance(150ms);
  loop->stop();
  loop->start();  // a restart is no reason to resend
  EXPECT_EQ(source->renders.size(), 4u);
  EXPECT_EQ(delegate->frames.size(), 1u);
  EXPECT_EQ(observer->will, 4);
  EXPECT_THAT(observer->images, AllOf(SizeIs(4), Each(NotNull())));
  EXPECT_EQ(removed->will, 0);

  loop->invalidateFrame();
  EXPECT_TRUE(loop->needsUpdate());
  delegate->result = false;
  advance(75ms);
  ASSERT_EQ(delegate->frames.size(), 2u);
  EXPECT_EQ(*delegate->frames[0]->bytes(), *delegate->frames[1]->bytes());

  source->alwaysNew = false;  // no new sample from now on
  EXPECT_TRUE(loop->needsUpdate());
  delegate->result = true;
  advance(75ms);
  EXPECT_EQ(delegate->frames.size(), 3u);
  // Sent and no new sample: a still screen costs nothing, not even a capture.
  EXPECT_FALSE(loop->needsUpdate());
  advance(300ms);
  EXPECT_EQ(source->renders.size(), 6u);
  EXPECT_EQ(observer->will, 6);
  EXPECT_EQ(delegate->frames.size(), 3u);
}

TEST_F(FrameLoopTest, EmptyRenderIsObservedAndWaitsTheIdlePeriodAndAnotherLengthIsNew) {
  auto observer = std::make_shared<CountingObserver>();
  loop->registerFrameLoopObserver(observer);
  source->make = [] { return nullptr; };
  loop->start();
  EXPECT_EQ(observer->will, 1);
  EXPECT_THAT(observer->images, ElementsAre(nullptr));
  source->make = [] { return platform::Bitmap::create(4, 4); };
  advance(74ms);
  EXPECT_EQ(source->renders.size(), 1u);
  advance(1ms);
  EXPECT_EQ(source->renders, (Times{0ms, 75ms}));
  EXPECT_EQ(delegate->sentAt, (Times{75ms}));

  // All-zero 4x4 and then all-zero 2x2 bitmaps: equal over the shorter length.
  source->make = [] { return platform::Bitmap::create(2, 2); };
  advance(75ms);
  ASSERT_EQ(delegate->frames.size(), 2u);
  EXPECT_EQ(delegate->frames[1]->width(), 2);
}

TEST_F(FrameLoopTest, NoCaptureWithoutPermissionSourceOrDelegateButTheTicksGoOn) {
  delegate->allowed = false;
  loop->start();
  advance(75ms);
  EXPECT_TRUE(source->renders.empty());

  delegate->allowed = true;
  loop->setSource(nullptr);
  EXPECT_TRUE(loop->needsUpdate());  // a frame is due, but there is nothing to ask
  advance(75ms);
  EXPECT_TRUE(delegate->frames.empty());

  loop->setSource(source);
  std::weak_ptr<FakeDelegate> gone = delegate;
  delegate.reset();
  ASSERT_TRUE(gone.expired());
  advance(300ms);
  EXPECT_TRUE(source->renders.empty());
  EXPECT_EQ(queue().pendingCount(), 1u);
}

}  // namespace
}  // namespace zephlo
