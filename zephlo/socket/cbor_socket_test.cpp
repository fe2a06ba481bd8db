#include "zephlo/socket/cbor_socket.hpp"

#include <gtest/gtest.h>

#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/testing/log_capture.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"
#include "zephlo/testing/web_socket_test_server.hpp"

namespace zephlo {

// Reaches the client callbacks and the private counters, for the cases a real
// connection cannot stage on demand.
class CBORSocketTestPeer {
 public:
  static void connected(CBORSocket& s) { s.websocketDidConnect(); }
  static void disconnected(CBORSocket& s) { s.websocketDidDisconnect(std::nullopt); }
  static void reconnectStep(CBORSocket& s) { s.reconnectStep(); }
  static bool reconnectPending(const CBORSocket& s) { return s.reconnectTimer_ && s.reconnectTimer_->isPending(); }
  static void setAcknowledged(CBORSocket& s, std::uint64_t ack) { s.lastMessageAck_ = ack; }
};

namespace {

using Peer = CBORSocketTestPeer;
using testing::WebSocketTestServer;
using namespace std::chrono_literals;

platform::URLRequest requestFor(std::string url) {
  platform::URLRequest request;
  request.url = std::move(url);
  return request;
}

class CBORSocketTest : public testing::MainQueueTest {
 protected:
  // A socket for `server` whose factory counts its calls and stamps each request.
  std::shared_ptr<CBORSocket> open(const WebSocketTestServer& server, std::uint32_t random = 0) {
    auto socket = CBORSocket::create(
        [this, url = server.url("/sockets/1/ws")] {
          ++requests_;
          requestTimes_.push_back(now());
          auto request = requestFor(url);
          request.timeout = 1h;  // handshakes never time out within these tests
          request.setHeader("Authorization", "Bearer token");
          request.setHeader("X-Attempt", std::to_string(requests_));
          return request;
        },
        [random] { return random; });
    socket->onConnect([this] { ++connects_; });
    socket->onDisconnect([this] { ++disconnects_; });
    sockets_.push_back(socket);
    return socket;
  }
  void TearDown() override {
    for (auto& s : sockets_) s->disconnect();  // an open socket keeps itself alive
    testing::MainQueueTest::TearDown();
  }
  // Sends an event and waits for the server to have it: everything the server
  // sent before its reply has then been handled by the socket.
  void roundTrip(WebSocketTestServer& server, CBORSocket& socket) {
    int marks = 0;
    socket.onMessage("mark", [&](const ValueMap&) { ++marks; });
    server.sendMap({{"event", "mark"}, {"data", ValueMap{}}});
    ASSERT_TRUE(until([&] { return marks > 0; }));
  }

  testing::LogCapture log_;
  int requests_ = 0;
  std::vector<platform::Duration> requestTimes_;
  int connects_ = 0;
  int disconnects_ = 0;
  std::vector<std::shared_ptr<CBORSocket>> sockets_;
};

std::vector<std::uint64_t> ids(const WebSocketTestServer& server) {
  std::vector<std::uint64_t> out;
  for (const auto& m : server.receivedMaps())
    if (auto id = m.get("id").uintValue()) out.push_back(*id);
  return out;
}

TEST_F(CBORSocketTest, EachConnectionNumbersItsMessagesFromOneAndReconnectsWithAFreshRequest) {
  WebSocketTestServer server(WebSocketTestServer::Options::requiringToken("token"));
  auto socket = open(server);
  ASSERT_TRUE(until([&] { return socket->isConneced(); }));
  socket->send("filter", {{"events", ValueArray{"probe"}}});
  socket->send("alive", {});
  ASSERT_TRUE(until([&] { return server.received().size() == 2; }));
  EXPECT_EQ(ids(server), (std::vector<std::uint64_t>{1, 2}));
  EXPECT_EQ(server.receivedMaps()[0].get("event"), Value("filter"));

  // Writes cut short by a dropped connection complete in the client's own tests.
  server.dropConnections();
  ASSERT_TRUE(until([&] { return disconnects_ == 1; }));
  EXPECT_FALSE(socket->isConneced());
  ASSERT_EQ(log_.stdoutLines().size(), 1u);
  EXPECT_TRUE(log_.stdoutLines()[0].starts_with("Zephlo disconnected due to WebSocket error "));
  EXPECT_EQ(requests_, 1);
  advance(500ms);  // minReconnectDelay with a zero draw
  EXPECT_EQ(requests_, 2);
  ASSERT_TRUE(until([&] { return connects_ == 2; }));
  ASSERT_EQ(server.upgrades().size(), 2u);
  EXPECT_EQ(server.upgrades()[1].header("X-Attempt"), "2");
  socket->send("alive", {});
  ASSERT_TRUE(until([&] { return server.received().back().connection == 1; }));
  EXPECT_EQ(ids(server).back(), 1u);
}

TEST_F(CBORSocketTest, AcknowledgementsDriveTheLagAndEventsReachTheirListeners) {
  WebSocketTestServer server;
  auto socket = open(server);
  std::vector<std::string> calls;
  std::vector<ValueMap> payloads;
  socket->onMessage("x", [&](const ValueMap& d) { calls.push_back("first"), payloads.push_back(d); });
  socket->onMessage("x", [&](const ValueMap&) { calls.push_back("second"); });
  ASSERT_TRUE(until([&] { return socket->isConneced(); }));
  for (int i = 0; i < 5; ++i) socket->send("alive", {});
  ASSERT_TRUE(until([&] { return server.received().size() == 5; }));
  EXPECT_EQ(socket->messageLag(), 0u);  // nothing acknowledged yet

  const struct {
    const char* what;
    ValueMap message;
    std::uint64_t lag;
  } steps[] = {
      {"ack 3", {{"ack", 3u}}, 2},
      {"ack as text changes nothing", {{"ack", "3"}}, 2},
      {"ack moving back", {{"ack", 2u}}, 3},
      {"ack with other keys", {{"ack", 4u}, {"event", "x"}, {"data", ValueMap{}}}, 1},
      {"event without data", {{"event", "x"}}, 1},
      {"event with array data", {{"event", "x"}, {"data", ValueArray{}}}, 1},
      {"event with non-text data keys", {{"event", "x"}, {"data", ValueMap{{1u, 2u}}}}, 1},
      {"event name that is not text", {{"event", 5u}, {"data", ValueMap{}}}, 1},
      {"event nobody listens to", {{"event", "y"}, {"data", ValueMap{}}}, 1},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    server.sendMap(step.message);
    roundTrip(server, *socket);
    EXPECT_EQ(socket->messageLag(), step.lag);
    EXPECT_TRUE(calls.empty());
  }
  server.sendText("{\"event\": \"x\", \"data\": {}}");
  server.sendBinary(Bytes{0xff});
  server.sendBinary(cbor::encode(Value(ValueArray{"x"})).value());
  roundTrip(server, *socket);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(socket->messageLag(), 1u);

  // -5 arrives as its raw payload, 4.
  server.sendMap({{"event", "x"}, {"data", ValueMap{{"n", std::int64_t{-5}}}}, {"id", 77u}});
  ASSERT_TRUE(until([&] { return calls.size() == 2; }));
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(payloads.at(0), (ValueMap{{"n", 4u}}));
}

TEST_F(CBORSocketTest, DisconnectEndsTheSocketForGood) {
  WebSocketTestServer server(WebSocketTestServer::Options::acknowledging());
  auto socket = open(server);
  ASSERT_TRUE(until([&] { return socket->isConneced(); }));
  socket->send("alive", {});
  ASSERT_TRUE(until([&] { return server.received().size() == 1; }));

  socket->disconnect();
  EXPECT_EQ(disconnects_, 1);
  EXPECT_FALSE(socket->isConneced());
  ASSERT_TRUE(until([&] { return !server.closeCodes().empty(); }));
  EXPECT_EQ(server.closeCodes(), std::vector<std::uint16_t>{1000});

  // Nothing reaches the old observers and nothing reconnects, whatever happens.
  int completions = 0;
  socket->send("alive", {}, [&](bool) { ++completions; });
  server.dropConnections();
  advance(10min);
  drain();
  EXPECT_EQ(completions, 0);
  EXPECT_EQ(server.acceptedCount(), 1u);
  EXPECT_EQ(disconnects_, 1);
  EXPECT_EQ(queue().pendingCount(), 0u);
  EXPECT_TRUE(log_.stdoutLines().empty());

  // A reconnect step that still fires says so and opens nothing.
  Peer::reconnectStep(*socket);
  EXPECT_EQ(log_.stdoutLines(), std::vector<std::string>{"Zephlo: Socket tried to reconnect after disconnect"});
  EXPECT_EQ(requests_, 1);
}

TEST_F(CBORSocketTest, BackOffFollowsTheAttemptsWithinItsDrawnBounds) {
  // A server that never answers keeps every attempt pending, so only the test
  // decides when a connection ends.
  WebSocketTestServer silent(WebSocketTestServer::Options::silent());
  auto socket = open(silent);
  EXPECT_DOUBLE_EQ(socket->maxReconnectDelay(), 30.0);
  socket->minReconnectDelay(1.0);
  socket->maxReconnectDelay(5.0);

  // Two disconnects before the reconnect schedule it once, after the minimum.
  Peer::disconnected(*socket);
  Peer::disconnected(*socket);
  EXPECT_EQ(disconnects_, 2);
  advance(999ms);
  EXPECT_EQ(requests_, 1);
  advance(1ms);
  EXPECT_EQ(requests_, 2);
  // Each later failure waits the delay of its attempt (pinned in the delay's own
  // test), up to the maximum.
  double wait = 0;
  for (std::int64_t attempt = 1; attempt <= 15; ++attempt) {
    Peer::disconnected(*socket);
    const auto from = now();
    advance(10s);
    ASSERT_EQ(requests_, attempt + 2);
    wait = std::chrono::duration<double>(requestTimes_.back() - from).count();
    EXPECT_NEAR(wait, CBORSocket::reconnectDelay(attempt, 0, 1.0, 5.0), 1e-6) << attempt;
  }
  EXPECT_DOUBLE_EQ(wait, 5.0);

  // A successful connect starts the schedule again.
  Peer::connected(*socket);
  Peer::disconnected(*socket);
  advance(999ms);
  EXPECT_EQ(requests_, 17);
  advance(1ms);
  EXPECT_EQ(requests_, 18);

  // The minimum is drawn once, between half a second and one and a half.
  EXPECT_DOUBLE_EQ(open(silent, 0)->minReconnectDelay(), 0.5);
  EXPECT_DOUBLE_EQ(open(silent, 0xffffffffu)->minReconnectDelay(), 1.5);
  EXPECT_NEAR(open(silent, 0x80000000u)->minReconnectDelay(), 1.0, 1e-9);
}

TEST(CBORSocketDelayTest, DelayIsTheJitteredPowerCurveClampedToItsBounds) {
  const struct {
    std::int64_t attempts;
    std::uint32_t random;
    double min, max, expected;
  } cases[] = {
      {0, 0, 0.5, 30, 0.5},           {1, 0, 0.1, 30, 0.2360},     {2, 0, 0.1, 30, 0.5417},
      {3, 0, 0.1, 30, 0.8808},        {5, 0, 0.5, 30, 1.6266},     {10, 0, 0.5, 30, 3.7372},
      {20, 0, 0.5, 30, 8.5858},       {30, 0, 0.5, 30, 13.9666},   {40, 0, 0.5, 30, 19.7248},
      {57, 0, 0.5, 30, 30.0},         {56, 0, 0.5, 60, 29.5373},   {10, 0x80000000u, 0.5, 30, 3.7372 * 1.25},
      {10, 0xffffffffu, 0.5, 30, 3.7372 * 1.5}, {40, 0, 1.5, 0.2, 1.5}, {0, 0, 1.5, 0.2, 1.5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.attempts);
    EXPECT_NEAR(CBORSocket::reconnectDelay(c.attempts, c.random, c.min, c.max), c.expected, 2e-3);
  }
}

TEST_F(CBORSocketTest, PingsGoOutEverySixtySeconds) {
  WebSocketTestServer server;
  auto socket = open(server);
  ASSERT_TRUE(until([&] { return socket->isConneced(); }));
  const struct {
    platform::Duration by;
    std::size_t pings;
  } steps[] = {{59s, 0}, {1s, 1}, {59s, 1}, {1s, 2}, {60s, 3}, {60s, 4}};
  for (const auto& step : steps) {
    advance(step.by);
    // A message written after any ping reaches the server after it.
    const auto before = server.received().size();
    socket->send("alive", {});
    ASSERT_TRUE(until([&] { return server.received().size() > before; }));
    EXPECT_EQ(server.pingCount(), step.pings);
  }
}

TEST(CBORSocketDeathTest, ABrokenPeerIsFatal) {
  // A forked child would share the event loop's epoll set with this process once
  // earlier tests have used it; a fresh process has its own.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // An acknowledgement beyond the last id would make a wrapped, huge lag.
  EXPECT_DEATH(
      {
        platform::MainQueue::shared().reset(platform::ClockKind::Manual);
        auto socket = CBORSocket::create([] { return requestFor("ws://127.0.0.1:9/"); });
        socket->send("alive", {});
        Peer::setAcknowledged(*socket, 2);
        (void)socket->messageLag();
      },
      "Arithmetic overflow in messageLag");
  EXPECT_DEATH(
      {
        WebSocketTestServer server;
        platform::MainQueue::shared().reset(platform::ClockKind::Manual);
        auto socket = CBORSocket::create([&] { return requestFor(server.url("/")); });
        platform::MainQueue::shared().runUntil([&] { return socket->isConneced(); });
        // {"event": "x", "data": {1: 0, -2: 0}}: the keys 1 and -2 both convert to 1.
        server.sendBinary(Bytes{0xa2, 0x65, 'e', 'v', 'e', 'n', 't', 0x61, 'x', 0x64, 'd', 'a', 't', 'a',
                                0xa2, 0x01, 0x00, 0x21, 0x00});
        platform::MainQueue::shared().runUntil([] { return false; }, 5s);
      },
      "Duplicate values for key: '1'");
}

}  // namespace
}  // namespace zephlo
