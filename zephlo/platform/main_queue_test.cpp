#include "zephlo/platform/main_queue.hpp"

#include <gtest/gtest.h>

#include <vector>

#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo::platform {
namespace {

using testing::MainQueueTest;
using namespace std::chrono_literals;

// Work posted from other threads shows in the sample handler's and request tests,
// the real clock in the end-to-end and service tests.
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

}  // namespace
}  // namespace zephlo::platform
