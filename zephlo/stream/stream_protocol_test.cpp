#include "zephlo/stream/stream_protocol.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "zephlo/stream/stream_test_support.hpp"

namespace zephlo {
namespace {

using testing::RecordingProtocolObserver;
using testing::StreamProtocolTest;
using testing::WebSocketTestServer;

const Value kSessionFilter = ValueMap{{"events", ValueArray{"session"}}};
const Value kStreamFilter =
    ValueMap{{"events", ValueArray{"drawing", "laser", "url", "touch", "keypress", "sync", "probe"}}};

TEST_F(StreamProtocolTest, SocketsOpenWhenTheSessionNamesThem) {
  // An update without socket URLs opens nothing, and nor does one whose URLs
  // are nulls as they arrive over the wire.
  session_->updateResource(sessionMap(false, false));
  EXPECT_FALSE(protocol_->control());
  EXPECT_FALSE(protocol_->stream());
  ValueMap wireNulls = sessionMap(false, false);
  for (const char* field : {"control_url", "stream_url"}) wireNulls.set(field, CborItem(CborItem::Kind::Null, 0, {0xf6}));
  session_->updateResource(wireNulls);
  EXPECT_FALSE(protocol_->control());
  EXPECT_FALSE(protocol_->stream());

  session_->updateResource(sessionMap(true, false));
  const auto control = protocol_->control();
  ASSERT_TRUE(control);
  EXPECT_FALSE(protocol_->stream());
  ASSERT_TRUE(waitForEvents(*controlServer_, "filter", 1));
  ASSERT_EQ(controlServer_->upgrades().size(), 1u);
  EXPECT_EQ(controlServer_->upgrades()[0].target, "/sockets/1/ws");
  EXPECT_EQ(controlServer_->upgrades()[0].header("Authorization"), "Bearer ctok");
  EXPECT_EQ(receivedEvents(*controlServer_, "filter")[0].get("data"), kSessionFilter);

  // A later update that brings "stream_url" opens only the stream socket.
  session_->updateResource(sessionMap(true, true));
  EXPECT_EQ(protocol_->control(), control);
  const auto stream = protocol_->stream();
  ASSERT_TRUE(stream);
  ASSERT_TRUE(waitForEvents(*streamServer_, "filter", 1));
  EXPECT_EQ(streamServer_->upgrades()[0].header("Authorization"), "Bearer stok");
  EXPECT_EQ(receivedEvents(*streamServer_, "filter")[0].get("data"), kStreamFilter);

  // With both sockets there, open creates and sends nothing; a probe round trip
  // orders the check after anything it could have sent.
  protocol_->open();
  session_->updateResource(sessionMap(true, true));
  EXPECT_EQ(protocol_->control(), control);
  EXPECT_EQ(protocol_->stream(), stream);
  push(*streamServer_, "probe", ValueMap{{"n", 1}});
  ASSERT_TRUE(waitForEvents(*streamServer_, "alive", 1));
  EXPECT_EQ(streamServer_->acceptedCount(), 1u);
  EXPECT_EQ(controlServer_->acceptedCount(), 1u);
  EXPECT_EQ(receivedEvents(*streamServer_, "filter").size(), 1u);
  EXPECT_EQ(receivedEvents(*controlServer_, "filter").size(), 1u);
}

TEST_F(StreamProtocolTest, EveryConnectionResubscribesAndAControlOneFetchesTheSession) {
  session_->updateResource(sessionMap(true, false));
  ASSERT_TRUE(waitFor([&] { return http_.requestCount() >= 1 && receivedEvents(*controlServer_, "filter").size() >= 1; }));
  EXPECT_EQ(http_.requests()[0].method, "GET");
  EXPECT_EQ(http_.requests()[0].target, "/api/1/sessions/s-1");
  // The fetched representation replaces the pushed one.
  ASSERT_TRUE(waitFor([&] { return session_->scale() == 0.75; }));

  // The socket reads its URL and token afresh when it reconnects.
  ValueMap changed = sessionMap(true, false);
  changed.set("control_token", "ctok-2");
  session_->updateResource(changed);
  ASSERT_TRUE(reconnect(*controlServer_, [&] { return http_.requestCount() >= 2; }));
  EXPECT_EQ(controlServer_->acceptedCount(), 2u);
  EXPECT_EQ(controlServer_->upgrades()[1].header("Authorization"), "Bearer ctok-2");
  EXPECT_EQ(receivedEvents(*controlServer_, "filter")[1].get("data"), kSessionFilter);

  // The stream socket resubscribes on every connection too, once the second
  // fetch (which names no stream socket) has landed.
  ASSERT_TRUE(waitFor([&] { return session_->scale() == 0.75; }));
  session_->updateResource(sessionMap(true, true));
  ASSERT_TRUE(waitForEvents(*streamServer_, "filter", 1));
  ASSERT_TRUE(reconnect(*streamServer_));
  EXPECT_EQ(streamServer_->acceptedCount(), 2u);
  EXPECT_EQ(receivedEvents(*streamServer_, "filter")[1].get("data"), kStreamFilter);
}

TEST_F(StreamProtocolTest, PushedSessionsUpdateTheSessionAndCanEndIt) {
  session_->updateResource(sessionMap(true, false));
  ASSERT_TRUE(waitForEvents(*controlServer_, "filter", 1));
  // The fetch started by the connection has landed, so it cannot undo a push.
  ASSERT_TRUE(waitFor([&] { return session_->scale() == 0.75; }));

  // A pushed representation that brings the stream URL opens the stream socket.
  push(*controlServer_, "session", sessionMap(true, true));
  ASSERT_TRUE(waitFor([&] { return protocol_->stream() != nullptr; }));

  // A rejected one is ignored.
  push(*controlServer_, "session", ValueMap{{"type", "Device"}});
  auto observer = std::make_shared<RecordingProtocolObserver>();
  protocol_->registerStreamProtocolObserver(observer);

  // Pushed "ended" closes the protocol: both sockets go with a normal close.
  push(*controlServer_, "session", sessionMap(true, true, "ended"));
  ASSERT_TRUE(waitFor([&] { return session_->isEnded(); }));
  EXPECT_FALSE(protocol_->control());
  EXPECT_FALSE(protocol_->stream());
  ASSERT_TRUE(waitForBothClosed());
  EXPECT_EQ(controlServer_->closeCodes(), std::vector<std::uint16_t>{1000});

  // Still a session observer, but later updates find the session ended.
  session_->updateResource(sessionMap(true, true, "ended"));
  EXPECT_FALSE(protocol_->control());
  EXPECT_FALSE(protocol_->stream());
}

TEST_F(StreamProtocolTest, AgentEventsReachEveryObserverParsedForEach) {
  auto first = std::make_shared<RecordingProtocolObserver>();
  auto second = std::make_shared<RecordingProtocolObserver>();
  protocol_->registerStreamProtocolObserver(first);
  protocol_->registerStreamProtocolObserver(second);
  protocol_->registerStreamProtocolObserver(second);  // a set: once only
  openBoth();

  const ValueMap keyPress{{"type", "KeyPress"}, {"key", "a"}, {"code", "KeyA"}, {"state", "keydown"}};
  const ValueMap touch{{"type", "Touch"}, {"id", 1}, {"state", "touchstart"}, {"timestamp", "2024-05-01T13:45:07.123+0200"}};
  const struct {
    const char* event;
    ValueMap data;
    std::size_t kind;  // index in ZPHAgentEvent
    bool parses;
  } cases[] = {
      {"keypress", keyPress, 3, true},   {"keypress", {{"type", "Touch"}}, 3, false},
      {"touch", touch, 2, true},         {"touch", {{"type", "Touch"}, {"id", 1}}, 2, false},
      {"drawing", {{"junk", 1}}, 0, false}, {"laser", {}, 1, false},
  };
  for (const auto& c : cases) push(*streamServer_, c.event, c.data);
  // "url" is subscribed to but finds no listener; "sync" goes to every observer.
  push(*streamServer_, "url", ValueMap{{"url", "https://x"}});
  push(*streamServer_, "sync");
  ASSERT_TRUE(waitFor([&] { return first->syncs.size() == 1 && second->syncs.size() == 1; }));

  for (const auto* observer : {first.get(), second.get()}) {
    ASSERT_EQ(observer->events.size(), std::size(cases));
    for (std::size_t i = 0; i < std::size(cases); ++i) {
      EXPECT_EQ(observer->events[i].index(), cases[i].kind) << cases[i].event << " " << i;
      EXPECT_EQ(!isNullAgentEvent(observer->events[i]), cases[i].parses) << cases[i].event << " " << i;
      EXPECT_EQ(observer->sessions[i], session_);
    }
    EXPECT_EQ(observer->syncs[0], session_);
  }
  // Each observer got an object of its own.
  EXPECT_NE(std::get<3>(first->events[0]), std::get<3>(second->events[0]));
  EXPECT_EQ(std::get<3>(first->events[0])->key(), "a");
  EXPECT_TRUE(std::get<2>(second->events[2])->isStart());

  // A removed observer hears nothing more.
  protocol_->removeStreamProtocolObserver(second);
  push(*streamServer_, "sync");
  ASSERT_TRUE(waitFor([&] { return first->syncs.size() == 2; }));
  EXPECT_EQ(second->syncs.size(), 1u);
}

TEST_F(StreamProtocolTest, CloseOrDroppingTheProtocolLeavesNoSocketsAndCloseNoObservers) {
  auto observer = std::make_shared<RecordingProtocolObserver>();
  protocol_->registerStreamProtocolObserver(observer);
  openBoth();
  ASSERT_TRUE(waitFor([&] { return controlServer_->openCount() == 1; }));

  protocol_->close();
  EXPECT_FALSE(protocol_->control());
  EXPECT_FALSE(protocol_->stream());
  ASSERT_TRUE(waitForBothClosed());
  EXPECT_EQ(controlServer_->closeCodes(), std::vector<std::uint16_t>{1000});
  EXPECT_EQ(streamServer_->closeCodes(), std::vector<std::uint16_t>{1000});
  protocol_->close();  // twice is harmless

  // The session is not ended, so an update opens new sockets; the observer set
  // emptied by close no longer hears their events.
  session_->updateResource(sessionMap(true, true));
  ASSERT_TRUE(waitForEvents(*streamServer_, "filter", 2));
  push(*streamServer_, "sync");
  push(*streamServer_, "probe");
  ASSERT_TRUE(waitForEvents(*streamServer_, "alive", 1));
  EXPECT_TRUE(observer->syncs.empty());

  // Dropping the protocol disconnects its sockets too: without the session's
  // strong reference, the protocol's owner is the last.
  session_->removeSessionObserver(protocol_);
  protocol_.reset();
  ASSERT_TRUE(waitForBothClosed());
  EXPECT_EQ(streamServer_->closeCodes(), (std::vector<std::uint16_t>{1000, 1000}));
}

TEST(ZPHStreamProtocolDateTest, ISODateStringUsesTheLocalOffset) {
  const char* saved = std::getenv("TZ");
  const std::string previous = saved ? saved : "";
  // 2024-05-01 11:45:07 UTC, and a little more that must not show.
  const auto time = std::chrono::sys_seconds{std::chrono::seconds{1714563907}} + std::chrono::milliseconds{999};
  const std::pair<const char*, const char*> cases[] = {
      {"UTC0", "2024-05-01T11:45:07Z"}, {"CET-1CEST,M3.5.0,M10.5.0/3", "2024-05-01T13:45:07+02:00"},
      {"EST5", "2024-05-01T06:45:07-05:00"}, {"<+0530>-5:30", "2024-05-01T17:15:07+05:30"}};
  for (const auto& [zone, expected] : cases) {
    setenv("TZ", zone, 1);
    tzset();
    EXPECT_EQ(ZPHStreamProtocol::ISODateString(time), expected) << zone;
  }
  saved ? setenv("TZ", previous.c_str(), 1) : unsetenv("TZ");
  tzset();
  EXPECT_GE(ZPHStreamProtocol::ISODateString().size(), 20u);
}

}  // namespace
}  // namespace zephlo
