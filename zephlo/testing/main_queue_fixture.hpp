// MainQueueTest: a fixture that gives each test a fresh main queue on the manual
// clock, bound to the test's thread, and drops whatever is left at the end. Tests
// on real sockets pump it with `until` and `drain`.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

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
  // Pumps the queue until `done` (for real sockets); false after 5 s of real time.
  static bool until(const std::function<bool()>& done) { return queue().runUntil(done, 5s); }
  // Runs every handler that is ready, so nothing left can still change the outcome.
  static void drain() {
    while (queue().poll() > 0) {
    }
  }
};

}  // namespace zephlo::testing
