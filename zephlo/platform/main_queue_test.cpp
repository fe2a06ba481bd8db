#include "zephlo/platform/main_queue.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo::platform {
namespace {

using testing::MainQueueTest;
using namespace std::chrono_literals;

TEST_F(MainQueueTest, AdvanceRunsDueItemsInDeadlineOrderAtTheirOwnTime) {
  std::vector<std::pair<int, Duration>> ran;
  after(30ms, [&] { ran.emplace_back(3, now()); });
  after(10ms, [&] { ran.emplace_back(1, now()); });
  after(10ms, [&] { ran.emplace_back(2, now()); });  // same deadline: scheduling order
  advance(9ms);
  EXPECT_TRUE(ran.empty());
  advance(25ms);
  ASSERT_EQ(ran.size(), 3u);
  EXPECT_EQ(ran[0], std::make_pair(1, Duration(10ms)));
  EXPECT_EQ(ran[1], std::make_pair(2, Duration(10ms)));
  EXPECT_EQ(ran[2], std::make_pair(3, Duration(30ms)));
  EXPECT_EQ(now(), 34ms);
}

TEST_F(MainQueueTest, CancelledItemsNeverRunAndReleaseWhatTheyHoldButCancellingARunningOneDoesNothing) {
  auto held = std::make_shared<int>(7);
  std::weak_ptr<int> watch = held;
  bool ran = false;
  auto item = after(10ms, [&ran, held] { ran = true; });
  held.reset();
  EXPECT_TRUE(item->isPending());
  item->cancel();
  EXPECT_TRUE(watch.expired());
  EXPECT_FALSE(item->isPending());
  EXPECT_EQ(queue().pendingCount(), 0u);
  advance(1s);
  EXPECT_FALSE(ran);

  int runs = 0;
  item = after(5ms, [&] {
    ++runs;
    item->cancel();
  });
  advance(5ms);
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(item->isCancelled());
}

TEST_F(MainQueueTest, AsyncWorkFromAnotherThreadRunsOnTheQueue) {
  std::thread::id ranOn;
  std::thread other([&] { async([&] { ranOn = std::this_thread::get_id(); }); });
  other.join();
  EXPECT_TRUE(queue().runUntil([&] { return ranOn != std::thread::id(); }, 2s));
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(queue().isCurrent());
  bool offQueue = true;
  std::thread([&] { offQueue = queue().isCurrent(); }).join();
  EXPECT_FALSE(offQueue);
}

TEST_F(MainQueueTest, RepeatingTimerFiresEveryIntervalUntilInvalidatedEvenFromItsOwnBody) {
  std::vector<Duration> fired;
  auto timer = std::make_unique<RepeatingTimer>(60s, [&] { fired.push_back(now()); });
  advance(150s);
  EXPECT_EQ(fired, (std::vector<Duration>{60s, 120s}));
  timer->invalidate();
  EXPECT_FALSE(timer->isValid());
  advance(200s);
  EXPECT_EQ(fired.size(), 2u);
  timer = std::make_unique<RepeatingTimer>(1s, [&] {
    fired.push_back(now());
    timer->invalidate();
  });
  advance(5s);
  EXPECT_EQ(fired, (std::vector<Duration>{60s, 120s, 351s}));
}

TEST(MainQueueRealClockTest, DelayedWorkRunsOnTheRealClock) {
  auto& queue = MainQueue::shared();
  queue.reset(ClockKind::Real);
  bool first = false, second = false;
  auto cancelled = queue.after(1ms, [&] { ADD_FAILURE() << "cancelled item ran"; });
  queue.after(5ms, [&] { second = true; });
  queue.after(1ms, [&] { first = true; });
  cancelled->cancel();
  EXPECT_TRUE(queue.runUntil([&] { return first && second; }, 5s));
  queue.reset(ClockKind::Manual);
}

}  // namespace
}  // namespace zephlo::platform
