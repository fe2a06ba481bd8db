#include "zephlo/platform/web_socket_client.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/testing/refusing_port.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"
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
  std::unique_ptr<WebSocketClient> open(URLRequest request) {
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
  std::unique_ptr<WebSocketClient> open(const std::string& url) {
    URLRequest request;
    request.url = url;
    return open(std::move(request));
  }
  bool until(const std::function<bool()>& done) { return queue().runUntil(done, 5s); }
  // Runs every handler that is ready, so nothing left can still change the outcome.
  void drain() {
    while (queue().poll() > 0) {
    }
  }

  Events events_;
};

TEST_F(WebSocketClientTest, UpgradeCarriesTheRequestsTargetAndHeaders) {
  WebSocketTestServer server(WebSocketTestServer::Options::requiringToken("secret"));
  URLRequest request;
  request.url = server.url("/sockets/1/ws?v=2#fragment");
  request.setHeader("Authorization", "Bearer secret");
  request.setHeader("User-Agent", "Demo/7");
  request.setHeader("X-ZephloDevice", "device-1");
  auto client = open(request);
  ASSERT_TRUE(until([&] { return events_.connects == 1; }));
  EXPECT_TRUE(client->isConnected());
  ASSERT_EQ(server.upgrades().size(), 1u);
  const auto& upgrade = server.upgrades()[0];
  EXPECT_EQ(upgrade.target, "/sockets/1/ws?v=2");
  EXPECT_EQ(upgrade.header("user-agent"), "Demo/7");
  EXPECT_EQ(upgrade.header("X-ZephloDevice"), "device-1");
  EXPECT_EQ(upgrade.header("Host"), "127.0.0.1:" + std::to_string(server.port()));
  EXPECT_FALSE(upgrade.header("Sec-WebSocket-Protocol"));
  EXPECT_FALSE(upgrade.serverName);
}

TEST_F(WebSocketClientTest, ConnectionsThatCannotOpenEndInOneDisconnectWithAnError) {
  WebSocketTestServer guarded(WebSocketTestServer::Options::requiringToken("secret"));
  testing::RefusingPort refusing;
  const std::string refusedUrl = refusing.url("/", "ws");
  const std::string cases[] = {guarded.url("/"), refusedUrl, "ftp://127.0.0.1/", "ws://[::1/"};
  for (const auto& url : cases) {
    SCOPED_TRACE(url);
    events_ = {};
    auto client = open(url);
    int completions = 0;
    client->write(Bytes{1}, [&] { ++completions; });
    ASSERT_TRUE(until([&] { return events_.disconnects == 1; }));
    drain();
    EXPECT_EQ(events_.connects, 0);
    EXPECT_EQ(events_.disconnects, 1);
    EXPECT_TRUE(events_.error && !events_.error->empty());
    EXPECT_EQ(completions, 1);
    EXPECT_FALSE(client->isConnected());
  }
  EXPECT_FALSE(guarded.upgrades().at(0).accepted);
}

TEST_F(WebSocketClientTest, BinaryAndTextMessagesArriveAndWritesGoOutInOrder) {
  WebSocketTestServer server;
  auto client = open(server.url("/"));
  ASSERT_TRUE(until([&] { return events_.connects == 1; }));
  std::vector<int> completed;
  for (int i = 0; i < 3; ++i) client->write(Bytes{static_cast<std::uint8_t>(i)}, [&, i] { completed.push_back(i); });
  ASSERT_TRUE(until([&] { return server.received().size() == 3; }));
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(server.received()[i].bytes, Bytes{static_cast<std::uint8_t>(i)});
  EXPECT_TRUE(until([&] { return completed.size() == 3; }));
  EXPECT_EQ(completed, (std::vector<int>{0, 1, 2}));

  server.sendBinary(Bytes{9, 8});
  server.sendText("hello");
  ASSERT_TRUE(until([&] { return events_.text.size() == 1; }));
  EXPECT_EQ(events_.binary, std::vector<Bytes>{Bytes({9, 8})});
  EXPECT_EQ(events_.text, std::vector<std::string>{"hello"});
}

TEST_F(WebSocketClientTest, CloseCodesDecideWhetherTheEndIsAnError) {
  const struct {
    const char* what;
    std::function<void(WebSocketTestServer&, WebSocketClient&)> end;
    bool error;
  } cases[] = {
      {"our own disconnect", [](auto&, auto& c) { c.disconnect(); }, false},
      {"peer closes normally", [](auto& s, auto&) { s.closeConnections(1000); }, false},
      {"peer goes away", [](auto& s, auto&) { s.closeConnections(1001); }, true},
      {"peer drops the connection", [](auto& s, auto&) { s.dropConnections(); }, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    events_ = {};
    WebSocketTestServer server;
    auto client = open(server.url("/"));
    ASSERT_TRUE(until([&] { return events_.connects == 1; }));
    c.end(server, *client);
    ASSERT_TRUE(until([&] { return events_.disconnects == 1; }));
    EXPECT_EQ(events_.error.has_value(), c.error) << events_.error.value_or("");
    EXPECT_FALSE(client->isConnected());
  }
}

TEST_F(WebSocketClientTest, DisconnectSendsCloseCode1000) {
  WebSocketTestServer server;
  auto client = open(server.url("/"));
  ASSERT_TRUE(until([&] { return events_.connects == 1; }));
  client->disconnect();
  ASSERT_TRUE(until([&] { return !server.closeCodes().empty(); }));
  EXPECT_EQ(server.closeCodes(), std::vector<std::uint16_t>{1000});
  // Releasing the handle at once must not cut the close short.
  WebSocketTestServer second;
  auto other = open(second.url("/"));
  ASSERT_TRUE(until([&] { return events_.connects == 2; }));
  other->disconnect();
  other.reset();
  ASSERT_TRUE(until([&] { return !second.closeCodes().empty(); }));
  EXPECT_EQ(second.closeCodes(), std::vector<std::uint16_t>{1000});
}

TEST_F(WebSocketClientTest, TimeoutBoundsTheHandshakeOnTheQueuesClock) {
  WebSocketTestServer silent(WebSocketTestServer::Options::silent());
  URLRequest request;
  request.url = silent.url("/");
  request.timeout = 10s;
  auto client = open(request);
  ASSERT_TRUE(until([&] { return silent.upgrades().size() == 1; }));
  advance(9999ms);
  drain();
  EXPECT_EQ(events_.disconnects, 0);
  advance(1ms);
  ASSERT_TRUE(until([&] { return events_.disconnects == 1; }));
  EXPECT_EQ(events_.error, "The request timed out.");
  EXPECT_EQ(events_.connects, 0);
}

TEST_F(WebSocketClientTest, EveryWriteCompletesOnceWhenTheConnectionDropsUnderIt) {
  WebSocketTestServer server;
  auto client = open(server.url("/"));
  ASSERT_TRUE(until([&] { return events_.connects == 1; }));
  server.setReading(false);
  std::vector<int> completions(4, 0);
  for (std::size_t i = 0; i < completions.size(); ++i)
    client->write(Bytes(2 * 1024 * 1024, 0x55), [&, i] { ++completions[i]; });
  // A ping while a long write is pending, and another while the first is pending.
  client->writePing();
  client->writePing();
  queue().poll();  // the first write is under way
  server.dropConnections();
  ASSERT_TRUE(until([&] { return events_.disconnects == 1; }));
  ASSERT_TRUE(until([&] { return std::count(completions.begin(), completions.end(), 1) == 4; }));
  drain();
  EXPECT_EQ(completions, std::vector<int>(4, 1));
  EXPECT_TRUE(events_.error.has_value());

  // Writes after the end complete too, later and once.
  int late = 0;
  client->write(Bytes{1}, [&] { ++late; });
  EXPECT_EQ(late, 0);
  drain();
  EXPECT_EQ(late, 1);
}

TEST_F(WebSocketClientTest, ReleasingTheHandleMidWriteStillCompletesAndCallsNobody) {
  WebSocketTestServer server;
  auto client = open(server.url("/"));
  ASSERT_TRUE(until([&] { return events_.connects == 1; }));
  server.setReading(false);
  int completions = 0;
  for (int i = 0; i < 3; ++i) client->write(Bytes(2 * 1024 * 1024, 0x11), [&] { ++completions; });
  client.reset();
  // The released connection lives on until the peer lets go; its writes then
  // complete, each once, and nobody hears of the disconnect.
  server.dropConnections();
  ASSERT_TRUE(until([&] { return completions == 3; }));
  drain();
  EXPECT_EQ(completions, 3);
  EXPECT_EQ(events_.disconnects, 0);
}

// A throwaway certificate authority and two server certificates, made with the
// openssl command: one for localhost and 127.0.0.1, one for another host only.
class TlsFiles {
 public:
  TlsFiles() {
    dir_ = std::filesystem::temp_directory_path() / ("zephlo-tls-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
    const std::string d = dir_.string();
    const std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
    ok_ = run("openssl req -x509" + ec + " -keyout " + d + "/ca.key -out " + d +
              "/ca.pem -days 2 -subj /CN=ZephloTestCA") &&
          issue("local", "subjectAltName=DNS:localhost,IP:127.0.0.1") &&
          issue("other", "subjectAltName=DNS:other.example");
  }
  ~TlsFiles() {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  bool ok() const { return ok_; }
  std::string caFile() const { return (dir_ / "ca.pem").string(); }
  testing::TlsIdentity identity(const std::string& name) const {
    return {read(name + ".pem"), read(name + ".key")};
  }

 private:
  static bool run(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }
  bool issue(const std::string& name, const std::string& san) {
    const std::string d = dir_.string();
    std::ofstream(dir_ / (name + ".ext")) << san << "\n";
    return run("openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + d + "/" + name +
               ".key -out " + d + "/" + name + ".csr -subj /CN=" + name) &&
           run("openssl x509 -req -in " + d + "/" + name + ".csr -CA " + d + "/ca.pem -CAkey " + d +
               "/ca.key -CAcreateserial -days 2 -out " + d + "/" + name + ".pem -extfile " + d + "/" + name +
               ".ext");
  }
  std::string read(const std::string& file) const {
    std::ifstream in(dir_ / file);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  std::filesystem::path dir_;
  bool ok_ = false;
};

// Sets SSL_CERT_FILE for the scope of a test, or clears it.
class CertFileEnv {
 public:
  explicit CertFileEnv(const std::optional<std::string>& file) {
    if (const char* old = std::getenv("SSL_CERT_FILE")) old_ = old;
    if (file)
      ::setenv("SSL_CERT_FILE", file->c_str(), 1);
    else
      ::unsetenv("SSL_CERT_FILE");
  }
  ~CertFileEnv() {
    if (old_)
      ::setenv("SSL_CERT_FILE", old_->c_str(), 1);
    else
      ::unsetenv("SSL_CERT_FILE");
  }

 private:
  std::optional<std::string> old_;
};

TEST_F(WebSocketClientTest, SecureConnectionsTrustOnlyVerifiedPeersForTheirHost) {
  TlsFiles tls;
  ASSERT_TRUE(tls.ok()) << "openssl could not make the test certificates";
  WebSocketTestServer local(WebSocketTestServer::Options::secure(tls.identity("local")));
  WebSocketTestServer other(WebSocketTestServer::Options::secure(tls.identity("other")));
  const std::string port = std::to_string(local.port());
  const struct {
    const char* what;
    std::string url;
    std::optional<std::string> trust;
    bool connects;
    std::optional<std::string> serverName;
  } cases[] = {
      {"unknown authority", local.url("/"), std::nullopt, false, std::nullopt},
      {"trusted, by IP address", local.url("/"), tls.caFile(), true, std::nullopt},
      {"trusted, by host name", "wss://localhost:" + port + "/", tls.caFile(), true, "localhost"},
      {"certificate for another host", other.url("/"), tls.caFile(), false, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    CertFileEnv env(c.trust);
    events_ = {};
    auto client = open(c.url);
    ASSERT_TRUE(until([&] { return events_.connects + events_.disconnects > 0; }));
    EXPECT_EQ(events_.connects, c.connects ? 1 : 0) << events_.error.value_or("");
    if (c.connects) {
      const auto& upgrade = local.upgrades().back();
      EXPECT_EQ(upgrade.serverName, c.serverName);
      client->write(cbor::encode(Value(ValueMap{{"id", 1u}})).value());
      ASSERT_TRUE(until([&] { return !local.received().empty(); }));
    } else {
      EXPECT_TRUE(events_.error.has_value());
    }
  }
  EXPECT_EQ(other.acceptedCount(), 0u);
}

}  // namespace
}  // namespace zephlo::platform
