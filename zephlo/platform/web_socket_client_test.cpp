#include "zephlo/platform/web_socket_client.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "zephlo/testing/main_queue_fixture.hpp"
#include "zephlo/testing/refusing_port.hpp"
#include "zephlo/testing/test_certificates.hpp"
#include "zephlo/testing/web_socket_test_server.hpp"

namespace zephlo::platform {
namespace {

using testing::WebSocketTestServer;
using namespace std::chrono_literals;

// Everything a client told its user.
struct Events {
  int connects = 0;
  int disconnects = 0;
  std::optional<std::string> error;
  std::vector<Bytes> binary;
  std::vector<std::string> text;
};

class WebSocketClientTest : public testing::MainQueueTest {
 protected:
  std::unique_ptr<WebSocketClient> open(const std::string& url, std::chrono::milliseconds timeout = URLRequest().timeout) {
    URLRequest request;
    request.url = url;
    request.timeout = timeout;
    auto client = std::make_unique<WebSocketClient>(std::move(request));
    client->setCallbacks({
        .onConnect = [this] { ++events_.connects; },
        .onDisconnect =
            [this](const std::optional<std::string>& error) {
              ++events_.disconnects;
              events_.error = error;
            },
        .onBinary = [this](std::span<const std::uint8_t> d) { events_.binary.emplace_back(d.begin(), d.end()); },
        .onText = [this](std::string_view t) { events_.text.emplace_back(t); },
    });
    client->connect();
    return client;
  }

  Events events_;
};

// Headers, binary messages and write order over a live connection show in the
// CBOR socket's tests; here, what only the handshake and the text path show.
TEST_F(WebSocketClientTest, AnOpenConnectionCarriesTheRequestAndMessagesBothWays) {
  WebSocketTestServer server;
  auto client = open(server.url("/sockets/1/ws?v=2#fragment"));
  ASSERT_TRUE(until([&] { return events_.connects == 1; }));
  ASSERT_EQ(server.upgrades().size(), 1u);
  const auto& upgrade = server.upgrades()[0];
  EXPECT_EQ(upgrade.target, "/sockets/1/ws?v=2");
  EXPECT_EQ(upgrade.header("Host"), "127.0.0.1:" + std::to_string(server.port()));
  EXPECT_FALSE(upgrade.header("Sec-WebSocket-Protocol"));
  EXPECT_FALSE(upgrade.serverName);
  server.sendText("hello");
  server.sendBinary(Bytes{9, 8});
  ASSERT_TRUE(until([&] { return events_.binary.size() == 1; }));
  EXPECT_EQ(events_.binary, std::vector<Bytes>{Bytes({9, 8})});
  EXPECT_EQ(events_.text, std::vector<std::string>{"hello"});
}

TEST_F(WebSocketClientTest, ConnectionsThatCannotOpenEndInOneDisconnectWithAnError) {
  WebSocketTestServer guarded(WebSocketTestServer::Options::requiringToken("secret"));
  testing::RefusingPort refusing;
  for (const std::string& url : {guarded.url("/"), refusing.url("/", "ws"), std::string("ftp://127.0.0.1/"),
                                 std::string("ws://[::1/")}) {
    SCOPED_TRACE(url);
    events_ = {};
    auto client = open(url);
    std::vector<bool> completions;
    client->write(Bytes{1}, [&](bool written) { completions.push_back(written); });
    ASSERT_TRUE(until([&] { return events_.disconnects == 1; }));
    drain();
    EXPECT_EQ(events_.connects, 0);
    EXPECT_EQ(events_.disconnects, 1);
    EXPECT_TRUE(events_.error && !events_.error->empty());
    EXPECT_EQ(completions, std::vector<bool>{false});
    EXPECT_FALSE(client->isConnected());
  }
  EXPECT_FALSE(guarded.upgrades().at(0).accepted);
}

// Our own disconnect and a dropped connection show in the CBOR socket's tests,
// the normal close of a released handle in the stream protocol's.
TEST_F(WebSocketClientTest, ThePeersCloseCodeDecidesWhetherTheEndIsAnError) {
  for (const auto& [code, error] : {std::pair<std::uint16_t, bool>{1000, false}, {1001, true}}) {
    SCOPED_TRACE(code);
    events_ = {};
    WebSocketTestServer server;
    auto client = open(server.url("/"));
    ASSERT_TRUE(until([&] { return events_.connects == 1; }));
    server.closeConnections(code);
    ASSERT_TRUE(until([&] { return events_.disconnects == 1; }));
    EXPECT_EQ(events_.error.has_value(), error) << events_.error.value_or("");
  }
}

TEST_F(WebSocketClientTest, TimeoutBoundsTheHandshakeOnTheQueuesClock) {
  WebSocketTestServer silent(WebSocketTestServer::Options::silent());
  auto client = open(silent.url("/"), 10s);
  ASSERT_TRUE(until([&] { return silent.upgrades().size() == 1; }));
  advance(9999ms);
  drain();
  EXPECT_EQ(events_.disconnects, 0);
  advance(1ms);
  ASSERT_TRUE(until([&] { return events_.disconnects == 1; }));
  EXPECT_EQ(events_.error, "The request timed out.");
}

// A released handle's connection lives on until the peer lets go: its writes
// complete all the same, but nobody hears of the end.
TEST_F(WebSocketClientTest, EveryWriteCompletesOnceWhenTheConnectionDropsUnderIt) {
  for (const bool release : {false, true}) {
    SCOPED_TRACE(release ? "handle released" : "handle kept");
    events_ = {};
    WebSocketTestServer server;
    auto client = open(server.url("/"));
    ASSERT_TRUE(until([&] { return events_.connects == 1; }));
    server.setReading(false);
    std::vector<int> completions(4, 0);
    for (std::size_t i = 0; i < completions.size(); ++i)
      client->write(Bytes(2 * 1024 * 1024, 0x55), [&, i](bool) { ++completions[i]; });
    // A ping while a long write is pending, and another while the first is pending.
    client->writePing();
    client->writePing();
    queue().poll();  // the first write is under way
    if (release) client.reset();
    server.dropConnections();
    ASSERT_TRUE(until([&] { return std::ranges::count(completions, 1) == 4; }));
    drain();
    EXPECT_EQ(completions, std::vector<int>(4, 1));
    EXPECT_EQ(events_.disconnects, release ? 0 : 1);
    EXPECT_EQ(events_.error.has_value(), !release);
    if (release) continue;
    // Writes after the end complete too, later and once.
    std::vector<bool> late;
    client->write(Bytes{1}, [&](bool written) { late.push_back(written); });
    EXPECT_TRUE(late.empty());
    drain();
    EXPECT_EQ(late, std::vector<bool>{false});
  }
}

TEST_F(WebSocketClientTest, SecureConnectionsTrustOnlyVerifiedPeersForTheirHost) {
  testing::TestCertificates tls;
  ASSERT_TRUE(tls.ok()) << "openssl could not make the test certificates";
  WebSocketTestServer local(WebSocketTestServer::Options::secure(tls.identity("local")));
  WebSocketTestServer other(WebSocketTestServer::Options::secure(tls.identity("other")));
  const struct {
    const char* what;
    std::string url;
    std::optional<std::string> trust;
    bool connects;
    std::optional<std::string> serverName;
  } cases[] = {
      {"unknown authority", local.url("/"), std::nullopt, false, std::nullopt},
      {"trusted, by IP address", local.url("/"), tls.trustFile(), true, std::nullopt},
      {"trusted, by host name", "wss://localhost:" + std::to_string(local.port()) + "/", tls.trustFile(), true,
       "localhost"},
      {"certificate for another host", other.url("/"), tls.trustFile(), false, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    testing::CertFileEnv env(c.trust);
    events_ = {};
    auto client = open(c.url);
    ASSERT_TRUE(until([&] { return events_.connects + events_.disconnects > 0; }));
    EXPECT_EQ(events_.connects, c.connects ? 1 : 0) << events_.error.value_or("");
    if (c.connects) {
      EXPECT_EQ(local.upgrades().back().serverName, c.serverName);
      const auto before = local.received().size();
      client->write(Bytes{0xa1, 0x62, 'i', 'd', 0x01});  // CBOR {"id": 1}
      ASSERT_TRUE(until([&] { return local.received().size() > before; }));
    } else {
      EXPECT_TRUE(events_.error.has_value());
    }
  }
  EXPECT_EQ(other.acceptedCount(), 0u);
}

}  // namespace
}  // namespace zephlo::platform
