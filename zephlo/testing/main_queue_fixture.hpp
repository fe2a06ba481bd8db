// MainQueueTest: a fixture that gives each test a fresh main queue on the manual
// clock, bound to the test's thread, and drops whatever is left at the end.
#pragma once

#include <gtest/gtest.h>

#include <chrono>

#include "zephlo/platform/main_queue.hpp"

namespace zephlo::testing {

using namespace std::chrono_literals;

class MainQueueTest : public ::testing::Test {
 protected:
  void SetUp() override { queue().reset(platform::ClockKind::Manual); }
  void TearDown() override { queue().reset(platform::ClockKind::Manual); }

  static platform::MainQueue& queue() { return platform::MainQueue::shared(); }
  static void advance(platform::Duration by) { queue().advance(by); }
  static platform::Duration now() { return queue().now(); }
};

}  // namespace zephlo::testing
