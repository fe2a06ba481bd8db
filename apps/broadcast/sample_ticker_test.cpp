#include "apps/broadcast/sample_ticker.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace zephlo {
namespace {

using namespace std::chrono_literals;

// Has a sample on every other tick.
SampleTicker::Poll everyOtherTick(std::atomic<int>* asked) {
  return [asked](platform::Duration) -> std::optional<platform::SampleBuffer> {
    if ((++*asked) % 2) return std::nullopt;
    return platform::SampleBuffer(platform::PixelBuffer::create(platform::PixelFormat::BGRA, 2, 2), 6);
  };
}

TEST(SampleTickerTest, DeliversOnlyTheSamplesThePollHasAndStopsForGoodWhenAsked) {
  std::atomic<int> asked{0};
  std::mutex mutex;
  std::condition_variable delivered;
  std::vector<std::int64_t> orientations;
  SampleTicker ticker(200);
  ticker.start(everyOtherTick(&asked), [&](const platform::SampleBuffer& sample) {
    std::lock_guard lock(mutex);
    orientations.push_back(sample.orientationAttachment().value_or(0));
    delivered.notify_all();
  });
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(delivered.wait_for(lock, 10s, [&] { return orientations.size() >= 3; }));
  }
  ticker.stop();
  const auto deliveredAtStop = orientations.size();
  const int askedAtStop = asked.load();
  EXPECT_EQ(static_cast<int>(deliveredAtStop), askedAtStop / 2);
  EXPECT_EQ(orientations.front(), 6);
  // Stopped means joined: nothing runs after stop returns.
  ticker.stop();
  EXPECT_EQ(asked.load(), askedAtStop);
  EXPECT_EQ(orientations.size(), deliveredAtStop);

  // Stop before start, and destruction while running, are safe.
  SampleTicker(30).stop();
  SampleTicker running(1000);
  running.start(everyOtherTick(&asked), [](const platform::SampleBuffer&) {});
}

}  // namespace
}  // namespace zephlo
