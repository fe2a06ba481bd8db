#include "zephlo/platform/rp_broadcast_sample_handler.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo::platform {
namespace {

using RPBroadcastSampleHandlerTest = testing::MainQueueTest;

// Each finish is posted, from any thread, to the main queue; one posted by an
// extension that is gone still runs, and one without a handler is dropped.
TEST_F(RPBroadcastSampleHandlerTest, EveryFinishIsPostedToTheMainQueueFromAnyThread) {
  std::vector<Error> finishes;
  std::vector<bool> onMainQueue;
  {
    RPBroadcastSampleHandler handler;
    handler.setFinishHandler([&](const Error& error) {
      finishes.push_back(error);
      onMainQueue.push_back(MainQueue::shared().isCurrent());
    });
    handler.finishBroadcastWithError(Error{"Zephlo", 400, "Session ended"});
    std::thread http([&] { handler.finishBroadcastWithError(Error{"Zephlo.URLLoading", -1004, "refused"}); });
    http.join();
  }
  RPBroadcastSampleHandler withoutHandler;
  withoutHandler.finishBroadcastWithError(Error{"Zephlo", 400, "nobody listens"});
  EXPECT_TRUE(finishes.empty());  // not inside the call
  EXPECT_EQ(queue().poll(), 3u);
  EXPECT_EQ(finishes, (std::vector<Error>{{"Zephlo", 400, "Session ended"}, {"Zephlo.URLLoading", -1004, "refused"}}));
  EXPECT_EQ(onMainQueue, (std::vector<bool>{true, true}));
}

}  // namespace
}  // namespace zephlo::platform
