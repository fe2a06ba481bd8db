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

TEST_F(RPBroadcastSampleHandlerTest, EveryFinishIsPostedToTheMainQueueFromAnyThread) {
  installHandler();
  handler_.finishBroadcastWithError(Error{"Zephlo", 400, "Session ended"});
  std::thread http([this] { handler_.finishBroadcastWithError(Error{"Zephlo.URLLoading", -1004, "refused"}); });
  http.join();
  EXPECT_TRUE(finishes_.empty());  // not inside the call
  queue().poll();
  EXPECT_EQ(finishes_, (std::vector<Error>{{"Zephlo", 400, "Session ended"}, {"Zephlo.URLLoading", -1004, "refused"}}));
  EXPECT_EQ(onMainQueue_, (std::vector<bool>{true, true}));
}

TEST_F(RPBroadcastSampleHandlerTest, FinishOutlivesTheExtensionAndWithoutAHandlerIsDropped) {
  std::optional<Error> got;
  {
    RPBroadcastSampleHandler shortLived;
    shortLived.setFinishHandler([&](const Error& error) { got = error; });
    shortLived.finishBroadcastWithError(Error{"Zephlo", 400, "late"});
  }
  handler_.finishBroadcastWithError(Error{"Zephlo", 400, "nobody listens"});
  EXPECT_EQ(queue().poll(), 2u);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->description, "late");
}

}  // namespace
}  // namespace zephlo::platform
