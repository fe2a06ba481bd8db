#include "apps/service/session_store.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "zephlo/core/json.hpp"
#include "zephlo/platform/main_queue.hpp"

namespace zephlo::service {
namespace {

Value parse(std::string_view text) {
  auto v = json::parse(text);
  EXPECT_TRUE(v) << text;
  return v ? *v : Value();
}

class SessionStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { platform::MainQueue::shared().reset(platform::ClockKind::Manual); }
  // The status `body` is refused with, or 0 when it is taken.
  int statusOf(Session& s, std::string_view body) {
    const auto result = store_.update(s, parse(body));
    return result.error ? result.error->status : 0;
  }
  SessionStore store_;
};

TEST_F(SessionStoreTest, CreatesAPendingSessionWithItsOwnCodeAndTokens) {
  Session& s = store_.create("ws://127.0.0.1:9999");
  for (const auto& [key, value] : {std::pair<const char*, Value>{"state", "pending"}, {"full_device", false},
                                   {"require_consent", false}, {"scale", 0.5}})
    EXPECT_EQ(s.resource.get(key), value) << key;
  EXPECT_TRUE(s.code.size() == 6 && std::all_of(s.code.begin(), s.code.end(), ::isdigit)) << s.code;
  const std::string control = s.token("control_token"), stream = s.token("stream_token");
  for (const std::string& token : {control, stream})
    EXPECT_TRUE(token.size() == 32 && token.find_first_not_of("0123456789abcdef") == std::string::npos) << token;
  EXPECT_NE(control, stream);

  Session& other = store_.create("ws://h:1");
  EXPECT_NE(other.id, s.id);
  EXPECT_NE(other.code, s.code);
  EXPECT_NE(other.token("control_token"), control);
}

TEST_F(SessionStoreTest, MergesKnownFieldsAndIgnoresTheRest) {
  Session& s = store_.create("ws://h:1");
  const ValueMap before = s.resource;
  auto result = store_.update(
      s, parse(R"({"state":"active","full_device":true,"scale":0.25,"device":{"model":"x"},
                   "custom_data":{"a":1},"redaction_selectors":[[{"tag":"input"}]],
                   "id":"other","control_token":"stolen","bogus":1})"));
  EXPECT_FALSE(result.error);
  EXPECT_TRUE(result.changed);
  EXPECT_EQ(s.state(), "active");
  EXPECT_EQ(s.resource.get("full_device"), Value(true));
  EXPECT_EQ(s.resource.get("scale"), Value(0.25));
  EXPECT_EQ(s.resource.get("device"), parse(R"({"model":"x"})"));
  EXPECT_EQ(s.resource.get("custom_data"), parse(R"({"a":1})"));
  // Identity and credentials are the service's own; unknown fields are dropped.
  EXPECT_EQ(s.resource.get("id"), before.get("id"));
  EXPECT_EQ(s.resource.get("control_token"), before.get("control_token"));
  EXPECT_FALSE(s.resource.contains("bogus"));

  // The same body again changes nothing.
  result = store_.update(s, parse(R"({"state":"active","full_device":true})"));
  EXPECT_FALSE(result.error);
  EXPECT_FALSE(result.changed);
}

TEST_F(SessionStoreTest, RefusesBadBodiesWholeAndEndedSessionsForGood) {
  struct Case {
    const char* body;
    int status;
  };
  const Case cases[] = {
      {R"([1,2])", 400},
      {R"({"state":"paused"})", 422},
      {R"({"state":3})", 422},
      {R"({"full_device":"yes"})", 422},
      {R"({"require_consent":1})", 422},
      {R"({"scale":0})", 422},
      {R"({"scale":"0.5"})", 422},
      {R"({"device":[1]})", 422},
      {R"({"custom_data":"x"})", 422},
      {R"({"redaction_selectors":{}})", 422},
      {R"({"agent":{"id":"a"}})", 422},
      // A good field next to a bad one is not applied either.
      {R"({"full_device":true,"state":"nope"})", 422},
  };
  Session& s = store_.create("ws://h:1");
  const ValueMap before = s.resource;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    const auto result = store_.update(s, parse(c.body));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->status, c.status);
    EXPECT_FALSE(result.error->message.empty());
    EXPECT_EQ(s.resource, before);
  }
  // An ended session stays ended.
  EXPECT_EQ(statusOf(s, R"({"state":"ended"})"), 0);
  EXPECT_EQ(statusOf(s, R"({"state":"active"})"), 409);
  EXPECT_EQ(s.state(), "ended");
  EXPECT_EQ(statusOf(s, R"({"state":"ended"})"), 0);
}

TEST_F(SessionStoreTest, AnInjectedFullDeviceFailureAnswersTheNextFullDeviceChangeOnly) {
  Session& s = store_.create("ws://h:1");
  s.fullDeviceFailure = ServiceError{503, "No capacity"};
  EXPECT_EQ(statusOf(s, R"({"state":"active"})"), 0);  // no "full_device": passes
  const auto refused = store_.update(s, parse(R"({"full_device":true})"));
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->status, 503);
  EXPECT_EQ(refused.error->message, "No capacity");
  EXPECT_EQ(s.resource.get("full_device"), Value(false));
  EXPECT_EQ(statusOf(s, R"({"full_device":true})"), 0);
  EXPECT_EQ(s.resource.get("full_device"), Value(true));
}

}  // namespace
}  // namespace zephlo::service
