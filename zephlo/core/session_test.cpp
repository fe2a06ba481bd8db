#include "zephlo/core/session.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "zephlo/core/json.hpp"
#include "zephlo/testing/http_test_server.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo {
namespace {

using testing::HttpTestServer;
using Response = HttpTestServer::Response;

// Writes every notification it gets, in order, into a shared journal.
class JournalObserver : public ZPHSessionObserver {
 public:
  JournalObserver(std::string name, std::vector<std::string>& journal) : name_(std::move(name)), journal_(journal) {}
  void sessionDidUpdate(const std::shared_ptr<ZPHSession>& session) override {
    journal_.push_back(name_ + ":update:" + stateText(session));
    if (onUpdate) onUpdate(session);
  }
  void sessionDidEnd(const std::shared_ptr<ZPHSession>& session) override {
    journal_.push_back(name_ + ":end:" + stateText(session));
  }
  std::function<void(const std::shared_ptr<ZPHSession>&)> onUpdate;

 private:
  static std::string stateText(const std::shared_ptr<ZPHSession>& session) {
    const Value stateValue = session->state();
    const auto* state = stateValue.asString();
    return state ? *state : "-";
  }
  std::string name_;
  std::vector<std::string>& journal_;
};

ValueMap sessionMap(std::string_view state, ValueMap extra = {}) {
  ValueMap map{{"type", "Session"}, {"id", "s-1"}, {"state", state}};
  for (const auto& [key, value] : extra) map.set(key, value);
  return map;
}

class ZPHSessionTest : public testing::MainQueueTest {
 protected:
  void TearDown() override {
    ZPHRESTResource::setBaseUrl(std::nullopt);
    testing::MainQueueTest::TearDown();
  }
  std::vector<std::string> journal_;
};

TEST_F(ZPHSessionTest, ValidationRejectsInOrderAndLeavesEverythingUntouched) {
  const auto session = ZPHSession::initWithResource({{"id", "seed"}});
  session->registerSessionObserver(std::make_shared<JournalObserver>("a", journal_));
  const struct {
    Value value;
    const char* message;  // null when accepted
  } cases[] = {
      {Value(ValueArray{}), "Expecting session to be a dictionary"},
      {Value("Session"), "Expecting session to be a dictionary"},
      {Value(), "Expecting session to be a dictionary"},
      {ValueMap{{"id", "x"}, {"state", "active"}}, "Expected a Session resource"},
      {ValueMap{{"type", "Device"}, {"id", "x"}, {"state", "active"}}, "Expected a Session resource"},
      {ValueMap{{"type", nullptr}, {"id", "x"}, {"state", "active"}}, "Expected a Session resource"},
      {ValueMap{{"type", "Session"}}, "Expected session to have an ID"},
      {ValueMap{{"type", "Session"}, {"state", "active"}}, "Expected session to have an ID"},
      {ValueMap{{"type", "Session"}, {"id", "x"}}, "Expected session to have a state field"},
  };
  for (const auto& c : cases) {
    const auto error = session->updateResource(c.value);
    ASSERT_TRUE(error) << c.value.debugString();
    EXPECT_EQ(error->description, c.message) << c.value.debugString();
    EXPECT_EQ(error->code, 0);
    EXPECT_EQ(error->domain, "Zephlo");
  }
  EXPECT_EQ(session->resource(), Value(ValueMap{{"id", "seed"}}));
  EXPECT_TRUE(journal_.empty());

  // Null counts as present for "id" and "state".
  const Value nulls = ValueMap{{"type", "Session"}, {"id", nullptr}, {"state", nullptr}};
  EXPECT_FALSE(session->updateResource(nulls));
  EXPECT_EQ(session->resource(), nulls);
  EXPECT_EQ(journal_, std::vector<std::string>{"a:update:-"});
  session->cleanup();
}

TEST_F(ZPHSessionTest, EndIsAnnouncedOnceAfterTheUpdates) {
  const auto session = ZPHSession::initWithResource({{"id", "s-1"}});
  session->registerSessionObserver(std::make_shared<JournalObserver>("a", journal_));

  session->updateResource(sessionMap("active"));
  session->updateResource(sessionMap("ended"));
  session->updateResource(sessionMap("ended"));
  EXPECT_EQ(journal_, (std::vector<std::string>{"a:update:active", "a:update:ended", "a:end:ended", "a:update:ended"}));

  // A first representation that is already "ended" gives both, and with two
  // observers every update comes before any end.
  journal_.clear();
  const auto fresh = ZPHSession::initWithResource({{"id", "s-2"}});
  fresh->registerSessionObserver(std::make_shared<JournalObserver>("a", journal_));
  fresh->registerSessionObserver(std::make_shared<JournalObserver>("b", journal_));
  fresh->updateResource(sessionMap("ended"));
  ASSERT_EQ(journal_.size(), 4u);
  EXPECT_EQ(journal_[0].substr(1), ":update:ended");
  EXPECT_EQ(journal_[1].substr(1), ":update:ended");
  EXPECT_EQ(journal_[2].substr(1), ":end:ended");
  EXPECT_EQ(journal_[3].substr(1), ":end:ended");

  // Leaving "ended" and entering it again is a new end.
  journal_.clear();
  session->updateResource(sessionMap("active"));
  session->updateResource(sessionMap("ended"));
  EXPECT_EQ(journal_, (std::vector<std::string>{"a:update:active", "a:update:ended", "a:end:ended"}));
  session->cleanup();
  fresh->cleanup();
}

TEST_F(ZPHSessionTest, ObserversChangingTheSetWhileNotifiedTakeEffectNextTime) {
  const auto session = ZPHSession::initWithResource();
  auto leaver = std::make_shared<JournalObserver>("leaver", journal_);
  auto adder = std::make_shared<JournalObserver>("adder", journal_);
  auto late = std::make_shared<JournalObserver>("late", journal_);
  leaver->onUpdate = [&](const std::shared_ptr<ZPHSession>& s) { s->removeSessionObserver(leaver); };
  adder->onUpdate = [&](const std::shared_ptr<ZPHSession>& s) { s->registerSessionObserver(late); };
  session->registerSessionObserver(leaver);
  session->registerSessionObserver(adder);
  session->registerSessionObserver(adder);  // a set: once only

  // The snapshot still tells the leaver about the end of this same update, and
  // the newcomer hears nothing of it.
  session->updateResource(sessionMap("ended"));
  std::sort(journal_.begin(), journal_.end());
  EXPECT_EQ(journal_, (std::vector<std::string>{"adder:end:ended", "adder:update:ended", "leaver:end:ended",
                                                "leaver:update:ended"}));

  journal_.clear();
  session->updateResource(sessionMap("ended"));
  std::sort(journal_.begin(), journal_.end());
  EXPECT_EQ(journal_, (std::vector<std::string>{"adder:update:ended", "late:update:ended"}));

  // cleanup forgets every observer along with the resource.
  journal_.clear();
  session->cleanup();
  EXPECT_EQ(session->resource(), Value(ValueMap{}));
  session->updateResource(sessionMap("active"));
  EXPECT_TRUE(journal_.empty());
  adder->onUpdate = nullptr;
  leaver->onUpdate = nullptr;
}

TEST_F(ZPHSessionTest, ScaleIsCappedSinglePrecisionWithADefault) {
  const auto session = ZPHSession::initWithResource();
  const struct {
    Value scale;
    double expected;
  } cases[] = {
      {2, 1.0},
      {0.25, 0.25},
      {Value("0.3"), 0.5},
      {Value(), 0.5},  // null
      {true, 0.5},
      {ValueMap{}, 0.5},
      {0, 0.0},
      {-3, -3.0},
      {std::uint64_t{7}, 1.0},
      {0.1, static_cast<double>(0.1f)},  // single precision, not 0.1
      {1.0000001, 1.0},
  };
  for (const auto& c : cases) {
    session->updateResource(sessionMap("active", {{"scale", c.scale}}));
    EXPECT_EQ(session->scale(), c.expected) << c.scale.debugString();
  }
  session->updateResource(sessionMap("active"));
  EXPECT_EQ(session->scale(), 0.5);  // absent
  session->updateResource(sessionMap("active", {{"scale", std::numeric_limits<double>::quiet_NaN()}}));
  EXPECT_TRUE(std::isnan(session->scale()));
}

TEST_F(ZPHSessionTest, UrlUsesIdThenCodeThenTheCollection) {
  ZPHRESTResource::setBaseUrl("https://api.example");
  const struct {
    ValueMap resource;
    const char* expected;
  } cases[] = {
      {{{"id", "abc"}, {"code", "C"}}, "https://api.example/api/1/sessions/abc"},
      {{{"id", 17}}, "https://api.example/api/1/sessions/17"},
      {{{"code", "C"}}, "https://api.example/api/1/sessions/C"},
      {{{"code", 123456}}, "https://api.example/api/1/sessions/123456"},
      {{{"id", nullptr}, {"code", "K"}}, "https://api.example/api/1/sessions/K"},
      {{}, "https://api.example/api/1/sessions"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ZPHSession::initWithResource(c.resource)->url(), c.expected) << Value(c.resource).debugString();
  EXPECT_EQ(ZPHSession::url(std::string("x")), "https://api.example/api/1/sessions/x");
  EXPECT_EQ(ZPHSession::url(std::nullopt), "https://api.example/api/1/sessions");
}

TEST_F(ZPHSessionTest, FieldReaders) {
  const auto session = ZPHSession::initWithResource();
  EXPECT_FALSE(session->isPending() || session->isAuthorizing() || session->isActive() || session->isEnded());
  EXPECT_FALSE(session->hasAgent());
  EXPECT_FALSE(session->requireConsent());
  EXPECT_FALSE(session->fullDevice());
  EXPECT_TRUE(session->selectors().empty());

  const struct {
    const char* state;
    bool pending, authorizing, active, ended;
  } states[] = {{"pending", true, false, false, false},
                {"authorizing", false, true, false, false},
                {"active", false, false, true, false},
                {"ended", false, false, false, true},
                {"ACTIVE", false, false, false, false}};
  for (const auto& s : states) {
    session->updateResource(sessionMap(s.state));
    EXPECT_EQ(session->isPending(), s.pending) << s.state;
    EXPECT_EQ(session->isAuthorizing(), s.authorizing) << s.state;
    EXPECT_EQ(session->isActive(), s.active) << s.state;
    EXPECT_EQ(session->isEnded(), s.ended) << s.state;
  }

  session->updateResource(sessionMap("active", {{"agent", ValueMap{{"id", "a-1"}}},
                                                {"require_consent", true},
                                                {"full_device", true},
                                                {"code", 4711}}));
  EXPECT_TRUE(session->hasAgent());
  EXPECT_FALSE(session->agent());
  EXPECT_TRUE(session->requireConsent());
  EXPECT_TRUE(session->fullDevice());
  EXPECT_EQ(session->code(), Value(4711));

  session->updateResource(sessionMap("active", {{"agent", ValueMap{{"id", "a-1"}, {"name", "Ada"}}}}));
  EXPECT_EQ(session->agent(), ZPHAgent("a-1", "Ada"));
  session->updateResource(sessionMap("active", {{"agent", nullptr}, {"full_device", "yes"}}));
  EXPECT_TRUE(session->hasAgent());
  EXPECT_FALSE(session->agent());
  EXPECT_FALSE(session->fullDevice());

  // Elements the selector parser rejects are skipped; the others keep their order.
  const ValueArray first{ValueMap{{"type", "class"}, {"value", "A"}}};
  const ValueArray second{ValueMap{{"type", "class"}, {"value", "B"}}, ValueMap{{"type", "id"}, {"value", "c"}}};
  session->updateResource(sessionMap(
      "active", {{"redaction_selectors", ValueArray{Value(first), Value("junk"), Value(42), Value(second)}}}));
  const auto selectors = session->selectors();
  ASSERT_EQ(selectors.size(), 2u);
  EXPECT_EQ(selectors[0]->parts().size(), 1u);
  EXPECT_EQ(selectors[1]->parts().size(), 2u);
  session->updateResource(sessionMap("active", {{"redaction_selectors", "nope"}}));
  EXPECT_TRUE(session->selectors().empty());
}

// --- verbs against a real local service ---

class ZPHSessionRestTest : public ZPHSessionTest {
 protected:
  void SetUp() override {
    ZPHSessionTest::SetUp();
    ZPHRESTResource::setBaseUrl(server_.url());
  }

  struct Outcome {
    bool called = false;
    OptionalError error;
    std::shared_ptr<ZPHSession> session;
    std::vector<std::string> journalAtCallback;
  };
  ZPHSession::SessionCallback record(Outcome& outcome) {
    return [this, &outcome](OptionalError error, std::shared_ptr<ZPHSession> session) {
      outcome.called = true;
      outcome.error = std::move(error);
      outcome.session = std::move(session);
      outcome.journalAtCallback = journal_;
    };
  }
  void wait(const Outcome& outcome) { ASSERT_TRUE(queue().runUntil([&] { return outcome.called; })); }

  Value lastBody() {
    const auto requests = server_.requests();
    if (requests.empty()) return Value("no request");
    return json::parse(requests.back().body).value_or(Value("not json"));
  }

  HttpTestServer server_;
};

TEST_F(ZPHSessionRestTest, FullDeviceReplyUpdatesAndNotifiesBeforeTheCallback) {
  server_.route("PUT", "/api/1/sessions/s-1",
                Response::json(200, R"({"type":"Session","id":"s-1","state":"active","full_device":true})"));
  const auto session = ZPHSession::initWithResource({{"id", "s-1"}});
  session->registerSessionObserver(std::make_shared<JournalObserver>("a", journal_));
  Outcome outcome;
  session->fullDevice(true, record(outcome));
  wait(outcome);

  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.session, session);
  EXPECT_EQ(outcome.journalAtCallback, std::vector<std::string>{"a:update:active"});
  EXPECT_TRUE(session->fullDevice());
  ASSERT_EQ(server_.requestCount(), 1u);
  EXPECT_EQ(server_.requests()[0].method, "PUT");
  EXPECT_EQ(lastBody(), Value(ValueMap{{"full_device", true}}));
  session->cleanup();
}

TEST_F(ZPHSessionRestTest, VerbsSendTheirBodies) {
  server_.route("PUT", "/api/1/sessions/s-1",
                Response::json(200, R"({"type":"Session","id":"s-1","state":"ended"})"));
  server_.route("GET", "/api/1/sessions/s-1",
                Response::json(200, R"({"type":"Session","id":"s-1","state":"pending"})"));
  const auto session = ZPHSession::initWithResource({{"id", "s-1"}});

  Outcome fetched;
  session->fetch(record(fetched));
  wait(fetched);
  EXPECT_FALSE(fetched.error);
  EXPECT_TRUE(session->isPending());
  EXPECT_EQ(server_.requests().back().method, "GET");

  Outcome ended;
  session->end(record(ended));
  wait(ended);
  EXPECT_EQ(lastBody(), Value(ValueMap{{"state", "ended"}}));
  EXPECT_TRUE(session->isEnded());

  Outcome activated;
  session->activate(record(activated));
  wait(activated);
  const Value body = lastBody();
  ASSERT_TRUE(body.isMap()) << body.debugString();
  const ValueMap& map = *body.asMap();
  EXPECT_EQ(map.size(), 3u);
  EXPECT_EQ(map.get("state"), Value("active"));
  ASSERT_TRUE(map.get("device").isMap());
  const Value device = map.get("device");
  EXPECT_EQ(device.asMap()->get("sdk_version"), Value("2.6.0-alpha.1"));
  EXPECT_TRUE(map.get("custom_data").isMap());

  Outcome updated;
  session->update(ValueMap{{"scale", 0.5}}, record(updated));
  wait(updated);
  EXPECT_EQ(lastBody(), Value(ValueMap{{"scale", 0.5}}));
  EXPECT_EQ(server_.requests().back().target, "/api/1/sessions/s-1");
}

TEST_F(ZPHSessionRestTest, FailuresReachTheCallbackAndLeaveTheSession) {
  const auto session = ZPHSession::initWithResource({{"id", "s-1"}});
  session->registerSessionObserver(std::make_shared<JournalObserver>("a", journal_));

  // A reply that is not a session is rejected by validation.
  server_.route("GET", "/api/1/sessions/s-1", Response::json(200, R"({"type":"Device","id":"s-1","state":"x"})"));
  Outcome rejected;
  session->fetch(record(rejected));
  wait(rejected);
  ASSERT_TRUE(rejected.error);
  EXPECT_EQ(rejected.error->description, "Expected a Session resource");
  EXPECT_EQ(rejected.session, session);

  // An HTTP failure comes through unchanged.
  server_.route("PUT", "/api/1/sessions/s-1", Response::json(404, R"({"message":"No such session"})"));
  Outcome missing;
  session->fullDevice(true, record(missing));
  wait(missing);
  ASSERT_TRUE(missing.error);
  EXPECT_EQ(missing.error->code, 404);
  EXPECT_EQ(missing.error->description, "No such session");
  EXPECT_EQ(session->resource(), Value(ValueMap{{"id", "s-1"}}));
  EXPECT_TRUE(journal_.empty());

  // Verbs without a callback still apply the reply.
  server_.route("GET", "/api/1/sessions/s-1", Response::json(200, R"({"type":"Session","id":"s-1","state":"active"})"));
  session->fetch();
  ASSERT_TRUE(queue().runUntil([&] { return session->isActive(); }));
  EXPECT_EQ(journal_, std::vector<std::string>{"a:update:active"});
  session->cleanup();
}

TEST_F(ZPHSessionRestTest, CreatePostsAnEmptyObject) {
  server_.route("POST", "/api/1/sessions", Response::json(201, R"({"type":"Session","id":"new","state":"pending"})"));
  Outcome created;
  ZPHSession::create(record(created));
  wait(created);
  EXPECT_FALSE(created.error);
  ASSERT_TRUE(created.session);
  EXPECT_EQ(created.session->id(), "new");
  EXPECT_EQ(lastBody(), Value(ValueMap{}));

  server_.route("POST", "/api/1/sessions", Response::json(500, R"({"message":"down"})"));
  Outcome failed;
  ZPHSession::create(record(failed));
  wait(failed);
  ASSERT_TRUE(failed.error);
  EXPECT_EQ(failed.error->code, 500);
  EXPECT_FALSE(failed.session);
}

}  // namespace
}  // namespace zephlo
