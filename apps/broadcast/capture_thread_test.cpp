#include "apps/broadcast/capture_thread.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace zephlo {
namespace {

using namespace std::chrono_literals;

// Hands over a sample on every other tick.
class EveryOtherTick : public ScreenSource {
 public:
  explicit EveryOtherTick(std::atomic<int>* asked) : asked_(asked) {}
  std::optional<platform::SampleBuffer> sampleAt(platform::Duration) override {
    if ((++*asked_) % 2) return std::nullopt;
    return platform::SampleBuffer(platform::PixelBuffer::create(platform::PixelFormat::BGRA, 2, 2), 6);
  }

 private:
  std::atomic<int>* asked_;
};

TEST(CaptureThreadTest, DeliversOnlyTheSamplesTheSourceHasAndStopsForGood) {
  std::atomic<int> asked{0};
  std::mutex mutex;
  std::condition_variable delivered;
  std::vector<std::int64_t> orientations;
  CaptureThread thread(std::make_unique<EveryOtherTick>(&asked), 200, [&](const platform::SampleBuffer& sample) {
    std::lock_guard lock(mutex);
    orientations.push_back(sample.orientationAttachment().value_or(0));
    delivered.notify_all();
  });
  thread.start();
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(delivered.wait_for(lock, 10s, [&] { return orientations.size() >= 3; }));
  }
  thread.stop();
  const auto deliveredAtStop = orientations.size();
  const int askedAtStop = asked.load();
  EXPECT_EQ(static_cast<int>(deliveredAtStop), askedAtStop / 2);
  EXPECT_EQ(orientations.front(), 6);
  // Stopped means joined: nothing runs after stop returns.
  thread.stop();
  EXPECT_EQ(asked.load(), askedAtStop);
  EXPECT_EQ(orientations.size(), deliveredAtStop);
}

TEST(CaptureThreadTest, StopBeforeStartAndDestructionWhileRunningAreSafe) {
  std::atomic<int> asked{0};
  {
    CaptureThread idle(std::make_unique<EveryOtherTick>(&asked), 30, [](const platform::SampleBuffer&) {});
    idle.stop();
  }
  EXPECT_EQ(asked.load(), 0);
  CaptureThread running(std::make_unique<EveryOtherTick>(&asked), 1000, [](const platform::SampleBuffer&) {});
  running.start();
}

}  // namespace
}  // namespace zephlo
