#include "zephlo/core/session.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "zephlo/core/device_info.hpp"
#include "zephlo/core/json.hpp"
#include "zephlo/testing/http_test_server.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo {
namespace {

using testing::HttpTestServer;
using Response = HttpTestServer::Response;
using Journal = std::vector<std::string>;
using ::testing::UnorderedElementsAre;

// Writes "<name>:update:<state>" and "<name>:end:<state>" into a shared journal.
class JournalObserver : public ZPHSessionObserver {
 public:
  JournalObserver(std::string name, Journal& journal) : name_(std::move(name)), journal_(journal) {}
  void sessionDidUpdate(const std::shared_ptr<ZPHSession>& session) override {
    write(":update:", session);
    if (onUpdate) onUpdate(session);
  }
  void sessionDidEnd(const std::shared_ptr<ZPHSession>& session) override { write(":end:", session); }
  std::function<void(const std::shared_ptr<ZPHSession>&)> onUpdate;

 private:
  void write(const char* what, const std::shared_ptr<ZPHSession>& session) {
    const Value state = session->state();
    journal_.push_back(name_ + what + (state.asString() ? *state.asString() : "-"));
  }
  std::string name_;
  Journal& journal_;
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
  std::shared_ptr<JournalObserver> observe(const std::shared_ptr<ZPHSession>& session, std::string name = "a") {
    auto observer = std::make_shared<JournalObserver>(std::move(name), journal_);
    session->registerSessionObserver(observer);
    return observer;
  }
  Journal journal_;
};

TEST_F(ZPHSessionTest, ValidationRejectsInOrderAndLeavesEverythingUntouched) {
  const auto session = ZPHSession::initWithResource({{"id", "seed"}});
  observe(session);
  const Value nulls = ValueMap{{"type", "Session"}, {"id", nullptr}, {"state", nullptr}};
  const struct {
    Value value;
    const char* message;  // null: accepted
  } cases[] = {
      {Value(ValueArray{}), "Expecting session to be a dictionary"},
      {ValueMap{{"id", "x"}, {"state", "active"}}, "Expected a Session resource"},
      {ValueMap{{"type", "Device"}}, "Expected a Session resource"},
      {ValueMap{{"type", "Session"}}, "Expected session to have an ID"},
      {ValueMap{{"type", "Session"}, {"state", "active"}}, "Expected session to have an ID"},
      {ValueMap{{"type", "Session"}, {"id", "x"}}, "Expected session to have a state field"},
      {nulls, nullptr},  // null counts as present for "id" and "state"
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value.debugString());
    const bool accepted = !c.message;
    EXPECT_EQ(session->updateResource(c.value), accepted ? OptionalError() : ZPHError(c.message, 0));
    // A rejection changes nothing and tells no one.
    EXPECT_EQ(session->resource(), accepted ? nulls : Value(ValueMap{{"id", "seed"}}));
    EXPECT_EQ(journal_, accepted ? Journal{"a:update:-"} : Journal{});
  }
  session->cleanup();
}

TEST_F(ZPHSessionTest, EndIsAnnouncedOnEnteringEndedAfterTheUpdates) {
  const auto session = ZPHSession::initWithResource({{"id", "s-1"}});
  observe(session);
  for (const char* state : {"active", "ended", "ended", "active", "ended"})
    session->updateResource(sessionMap(state));
  EXPECT_EQ(journal_, (Journal{"a:update:active", "a:update:ended", "a:end:ended", "a:update:ended",
                               "a:update:active", "a:update:ended", "a:end:ended"}));
  session->cleanup();
}

TEST_F(ZPHSessionTest, ObserversAreToldFromASnapshotOfTheSet) {
  const auto session = ZPHSession::initWithResource();
  auto leaver = observe(session, "leaver");
  auto adder = observe(session, "adder");
  session->registerSessionObserver(adder);  // a set: once only
  auto late = std::make_shared<JournalObserver>("late", journal_);
  leaver->onUpdate = [&](const std::shared_ptr<ZPHSession>& s) { s->removeSessionObserver(leaver); };
  adder->onUpdate = [&](const std::shared_ptr<ZPHSession>& s) { s->registerSessionObserver(late); };

  // The snapshot still tells the leaver about the end of this same update, the
  // newcomer hears nothing of it, and every update comes before any end.
  session->updateResource(sessionMap("ended"));
  ASSERT_EQ(journal_.size(), 4u);
  EXPECT_THAT(Journal(journal_.begin(), journal_.begin() + 2),
              UnorderedElementsAre("adder:update:ended", "leaver:update:ended"));
  EXPECT_THAT(Journal(journal_.begin() + 2, journal_.end()),
              UnorderedElementsAre("adder:end:ended", "leaver:end:ended"));
  journal_.clear();
  session->updateResource(sessionMap("ended"));
  EXPECT_THAT(journal_, UnorderedElementsAre("adder:update:ended", "late:update:ended"));

  // cleanup forgets every observer along with the resource.
  journal_.clear();
  session->cleanup();
  EXPECT_EQ(session->resource(), Value(ValueMap{}));
  session->updateResource(sessionMap("active"));
  EXPECT_TRUE(journal_.empty());
}

TEST_F(ZPHSessionTest, ScaleIsCappedSinglePrecisionWithADefault) {
  const auto session = ZPHSession::initWithResource();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const struct {
    std::optional<Value> scale;  // none: absent
    double expected;
  } cases[] = {
      {2, 1.0}, {std::uint64_t{7}, 1.0}, {1.0000001, 1.0},  // capped
      {0.25, 0.25}, {0, 0.0}, {-3, -3.0}, {nan, nan},     // no lower bound
      {Value("0.3"), 0.5}, {Value(), 0.5}, {true, 0.5}, {ValueMap{}, 0.5}, {std::nullopt, 0.5},  // no number
      {0.1, static_cast<double>(0.1f)},  // single precision, not 0.1
  };
  for (const auto& c : cases) {
    session->updateResource(c.scale ? sessionMap("active", {{"scale", *c.scale}}) : sessionMap("active"));
    const double scale = session->scale();
    EXPECT_TRUE(scale == c.expected || (std::isnan(scale) && std::isnan(c.expected)))
        << (c.scale ? c.scale->debugString() : "absent") << " gave " << scale;
  }
}

TEST_F(ZPHSessionTest, UrlUsesIdThenCodeThenTheCollection) {
  ZPHRESTResource::setBaseUrl("https://api.example");
  const struct {
    ValueMap resource;
    const char* expected;
  } cases[] = {
      {{{"id", "abc"}, {"code", "C"}}, "https://api.example/api/1/sessions/abc"},
      {{{"code", "C"}}, "https://api.example/api/1/sessions/C"},
      {{{"code", 123456}}, "https://api.example/api/1/sessions/123456"},
      {{}, "https://api.example/api/1/sessions"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ZPHSession::initWithResource(c.resource)->url(), c.expected) << Value(c.resource).debugString();
}

TEST_F(ZPHSessionTest, FieldReaders) {
  const auto session = ZPHSession::initWithResource();
  EXPECT_FALSE(session->hasAgent() || session->requireConsent() || session->fullDevice());
  for (const std::string state : {"pending", "authorizing", "active", "ended", "ACTIVE"}) {
    session->updateResource(sessionMap(state));
    EXPECT_EQ((std::array{session->isPending(), session->isAuthorizing(), session->isActive(), session->isEnded()}),
              (std::array{state == "pending", state == "authorizing", state == "active", state == "ended"}))
        << state;
  }

  session->updateResource(sessionMap("active", {{"agent", ValueMap{{"id", "a-1"}}},  // no name: no agent
                                                {"require_consent", true},
                                                {"full_device", true}}));
  EXPECT_TRUE(session->hasAgent());
  EXPECT_FALSE(session->agent());
  EXPECT_TRUE(session->requireConsent());
  EXPECT_TRUE(session->fullDevice());
  session->updateResource(sessionMap("active", {{"agent", ValueMap{{"id", "a-1"}, {"name", "Ada"}}}}));
  EXPECT_EQ(session->agent(), ZPHAgent("a-1", "Ada"));
  session->updateResource(sessionMap("active", {{"agent", nullptr}, {"full_device", "yes"}, {"require_consent", 1}}));
  EXPECT_TRUE(session->hasAgent());
  EXPECT_FALSE(session->agent());
  EXPECT_FALSE(session->fullDevice() || session->requireConsent());  // only a boolean true counts

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
    Journal journalAtCallback;
  };
  // Calls `verb` with a recording callback and waits for it.
  Outcome run(const std::function<void(ZPHSession::SessionCallback)>& verb) {
    auto outcome = std::make_shared<Outcome>();
    verb([this, outcome](OptionalError error, std::shared_ptr<ZPHSession> session) {
      *outcome = {true, std::move(error), std::move(session), journal_};
    });
    EXPECT_TRUE(queue().runUntil([&] { return outcome->called; }));
    return *outcome;
  }
  void reply(const char* method, int status, std::string body, std::string path = "/api/1/sessions/s-1") {
    server_.route(method, std::move(path), Response::json(status, std::move(body)));
  }
  Value lastBody() {
    const auto requests = server_.requests();
    if (requests.empty()) return Value("no request");
    return json::parse(requests.back().body).value_or(Value("not json"));
  }

  HttpTestServer server_;
};

TEST_F(ZPHSessionRestTest, VerbsSendTheirBodiesAndApplyTheReplyBeforeTheCallback) {
  reply("POST", 201, R"({"type":"Session","id":"s-1","state":"pending"})", "/api/1/sessions");
  const auto created = run([](auto done) { ZPHSession::create(done); });
  EXPECT_FALSE(created.error);
  ASSERT_TRUE(created.session);
  const auto session = created.session;
  EXPECT_EQ(session->id(), "s-1");
  EXPECT_EQ(lastBody(), Value(ValueMap{}));
  observe(session);

  reply("GET", 200, R"({"type":"Session","id":"s-1","state":"authorizing"})");
  const auto fetched = run([&](auto done) { session->fetch(done); });
  EXPECT_FALSE(fetched.error);
  EXPECT_EQ(fetched.session, session);
  EXPECT_EQ(fetched.journalAtCallback, Journal{"a:update:authorizing"});

  // Switching full-device mode shows in the extension's tests.
  reply("PUT", 200, R"({"type":"Session","id":"s-1","state":"ended"})");
  EXPECT_FALSE(run([&](auto done) { session->end(done); }).error);
  EXPECT_EQ(lastBody(), Value(ValueMap{{"state", "ended"}}));
  EXPECT_TRUE(session->isEnded());

  // Activating describes this device and carries its (here empty) custom data.
  EXPECT_FALSE(run([&](auto done) { session->activate(done); }).error);
  EXPECT_EQ(lastBody(),
            Value(ValueMap{{"state", "active"}, {"device", ZPHDeviceInfo::info()}, {"custom_data", ValueMap{}}}));

  session->cleanup();
}

TEST_F(ZPHSessionRestTest, FailuresReachTheCallbackAndLeaveTheSession) {
  const auto session = ZPHSession::initWithResource({{"id", "s-1"}});
  observe(session);
  // A reply that is not a session is rejected by validation.
  reply("GET", 200, R"({"type":"Device","id":"s-1","state":"x"})");
  const auto rejected = run([&](auto done) { session->fetch(done); });
  EXPECT_EQ(rejected.error, ZPHError("Expected a Session resource", 0));
  EXPECT_EQ(rejected.session, session);  // untouched, as the validation test shows
  session->cleanup();

  reply("POST", 500, R"({"message":"down"})", "/api/1/sessions");
  const auto failed = run([](auto done) { ZPHSession::create(done); });
  EXPECT_EQ(failed.error, ZPHError("down", 500));
  EXPECT_FALSE(failed.session);
}

}  // namespace
}  // namespace zephlo
