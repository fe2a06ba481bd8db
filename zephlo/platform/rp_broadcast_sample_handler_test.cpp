#include "zephlo/platform/rp_broadcast_sample_handler.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <thread>
#include <vector>

#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo::platform {
namespace {

class RPBroadcastSampleHandlerTest : public testing::MainQueueTest {
 protected:
  RPBroadcastSampleHandler handler_;
  std::vector<Error> finishes_;
  std::vector<bool> onMainQueue_;

  void installHandler() {
    handler_.setFinishHandler([this](const Error& error) {
      finishes_.push_back(error);
      onMainQueue_.push_back(MainQueue::shared().isCurrent());
    });
  }
};

TEST_F(RPBroadcastSampleHandlerTest, FinishReachesTheHandlerOnTheMainQueueNotInsideTheCall) {
  installHandler();
  handler_.finishBroadcastWithError(Error{"Zephlo", 400, "Session ended"});
  EXPECT_TRUE(finishes_.empty());
  queue().poll();
  ASSERT_EQ(finishes_.size(), 1u);
  EXPECT_EQ(finishes_[0], (Error{"Zephlo", 400, "Session ended"}));
  EXPECT_TRUE(onMainQueue_[0]);
}

TEST_F(RPBroadcastSampleHandlerTest, FinishFromAnotherThreadIsPostedToTheMainQueue) {
  installHandler();
  std::thread http([this] { handler_.finishBroadcastWithError(Error{"Zephlo.URLLoading", -1004, "refused"}); });
  http.join();
  queue().poll();
  ASSERT_EQ(finishes_.size(), 1u);
  EXPECT_EQ(finishes_[0].description, "refused");
  EXPECT_TRUE(onMainQueue_[0]);
}

TEST_F(RPBroadcastSampleHandlerTest, EveryFinishReachesTheHandler) {
  installHandler();
  handler_.finishBroadcastWithError(Error{"Zephlo", 400, "a"});
  handler_.finishBroadcastWithError(Error{"Zephlo", 400, "b"});
  queue().poll();
  ASSERT_EQ(finishes_.size(), 2u);
  EXPECT_EQ(finishes_[0].description, "a");
  EXPECT_EQ(finishes_[1].description, "b");
}

TEST_F(RPBroadcastSampleHandlerTest, FinishPostedBeforeTheExtensionWentStillArrives) {
  std::optional<Error> got;
  {
    RPBroadcastSampleHandler shortLived;
    shortLived.setFinishHandler([&](const Error& error) { got = error; });
    shortLived.finishBroadcastWithError(Error{"Zephlo", 400, "late"});
  }
  queue().poll();
  ASSERT_TRUE(got);
  EXPECT_EQ(got->description, "late");
}

TEST_F(RPBroadcastSampleHandlerTest, FinishWithoutAHandlerIsDropped) {
  handler_.finishBroadcastWithError(Error{"Zephlo", 400, "nobody listens"});
  EXPECT_GT(queue().poll(), 0u);
  EXPECT_TRUE(finishes_.empty());
}

}  // namespace
}  // namespace zephlo::platform
