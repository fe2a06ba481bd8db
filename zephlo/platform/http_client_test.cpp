#include "zephlo/platform/http_client.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>

#include "zephlo/testing/http_test_server.hpp"

namespace zephlo::platform {
namespace {

using testing::HttpTestServer;
using namespace std::chrono_literals;

struct Outcome {
  HttpResult result;
  bool onHttpThread = false;
};

URLRequest requestFor(std::string url, std::chrono::milliseconds timeout = URLRequest().timeout) {
  URLRequest request;
  request.url = std::move(url);
  request.timeout = timeout;
  return request;
}

// A server whose /wait never answers.
void holdWait(HttpTestServer& server) {
  HttpTestServer::Response never;
  never.hold = true;
  server.route("GET", "/wait", never);
}

// Runs one transfer on `client` and waits for its completion.
Outcome fetch(HttpClient& client, URLRequest request) {
  std::promise<Outcome> done;
  auto future = done.get_future();
  client.start(std::move(request), [&client, &done](HttpResult result) {
    done.set_value(Outcome{std::move(result), client.isCurrent()});
  });
  if (future.wait_for(20s) != std::future_status::ready) {
    ADD_FAILURE() << "no completion";
    return {};
  }
  return future.get();
}

// Methods, headers and replies through the REST layer, and refused connections,
// show in the request and resource tests; here, what only this client decides.
// Each transfer goes on a connection of its own, with no cookie carried over, and
// redirects are followed to the final response.
TEST(HttpClientTest, SendsTheRequestAndReturnsTheFinalResponseOnItsThread) {
  HttpTestServer server;
  HttpTestServer::Response created = HttpTestServer::Response::json(201, R"({"ok":true})");
  created.headers.emplace_back("Set-Cookie", "session=abc; Path=/");
  server.route("POST", "/things", created);
  HttpTestServer::Response moved;
  moved.status = 302;
  moved.headers.emplace_back("Location", "/final");
  server.route("GET", "/start", moved);
  server.route("GET", "/final", HttpTestServer::Response::json(200, "[]"));

  HttpClient client;
  URLRequest request = requestFor(server.url("/things"));
  request.method = "POST";
  request.setHeader("X-Empty", "");
  request.body = std::string(4000, 'b');  // large enough that curl would ask for 100 Continue
  const auto outcome = fetch(client, request);
  EXPECT_TRUE(outcome.onHttpThread);
  ASSERT_TRUE(outcome.result.response);
  EXPECT_EQ(outcome.result.response->statusCode, 201);

  const auto redirected = fetch(client, requestFor(server.url("/start")));
  ASSERT_TRUE(redirected.result.response);
  EXPECT_EQ(redirected.result.response->url, server.url("/final"));
  EXPECT_EQ(redirected.result.body, "[]");

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].header("X-Empty"), "");
  EXPECT_FALSE(requests[0].header("Expect"));
  EXPECT_EQ(requests[0].body, std::string(4000, 'b'));
  EXPECT_FALSE(requests[1].header("Cookie"));
  EXPECT_EQ(server.connectionCount(), 3u);
}

TEST(HttpClientTest, ReportsTransportErrorsWithPlatformCodes) {
  HttpTestServer silent;
  holdWait(silent);
  const struct {
    const char* name;
    std::string url;
    std::chrono::milliseconds timeout;
    std::int64_t code;
  } cases[] = {
      {"unsupported scheme", "ftp://127.0.0.1/", 10s, -1002},
      {"no reply within the timeout", silent.url("/wait"), 1s, -1001},
  };
  HttpClient client;
  for (const auto& c : cases) {
    const auto outcome = fetch(client, requestFor(c.url, c.timeout));
    ASSERT_TRUE(outcome.result.error) << c.name;
    EXPECT_EQ(outcome.result.error->code, c.code) << c.name << ": " << outcome.result.error->description;
    EXPECT_FALSE(outcome.result.response) << c.name;
  }
}

// HTTPS trusts the test authority named by SSL_CERT_FILE and nothing else: a
// refused peer sees a handshake and no request, and the caller a transport error.
TEST(HttpClientTest, HttpsTrustsOnlyVerifiedPeersForTheirHost) {
  testing::TestCertificates certificates;
  ASSERT_TRUE(certificates.ok()) << "openssl could not make the test certificates";
  HttpClient client;
  const struct {
    const char* what;
    const char* identity;
    std::optional<std::string> trust;
    bool byName, trusted;
  } cases[] = {
      {"trusted, by IP address", "local", certificates.trustFile(), false, true},
      {"trusted, by host name", "local", certificates.trustFile(), true, true},
      {"unknown to the system store", "local", std::nullopt, false, false},
      {"unknown authority", "unknown", certificates.trustFile(), false, false},
      {"for another host", "other", certificates.trustFile(), false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    HttpTestServer server(certificates.identity(c.identity));
    server.route("GET", "/a", HttpTestServer::Response::json(200, "[1]"));
    testing::CertFileEnv env(c.trust);
    const auto outcome = fetch(client, requestFor(c.byName ? "https://localhost:" + std::to_string(server.port()) + "/a"
                                                           : server.url("/a")));
    EXPECT_EQ(server.requestCount(), c.trusted ? 1u : 0u);
    if (c.trusted) {
      ASSERT_FALSE(outcome.result.error) << outcome.result.error->description;
      EXPECT_EQ(outcome.result.body, "[1]");
      continue;
    }
    ASSERT_TRUE(outcome.result.error);
    EXPECT_TRUE(outcome.result.error->code == -1202 || outcome.result.error->code == -1200)
        << outcome.result.error->code << ": " << outcome.result.error->description;
    EXPECT_FALSE(outcome.result.response);
    EXPECT_EQ(server.connectionCount(), 1u);
  }

  // A redirect may not leave TLS behind.
  HttpTestServer secure(certificates.identity("local")), plain;
  HttpTestServer::Response down;
  down.status = 302;
  down.headers.emplace_back("Location", plain.url("/final"));
  secure.route("GET", "/start", down);
  plain.route("GET", "/final", HttpTestServer::Response::json(200, "[]"));
  testing::CertFileEnv env(certificates.trustFile());
  const auto outcome = fetch(client, requestFor(secure.url("/start")));
  EXPECT_TRUE(outcome.result.error);
  EXPECT_EQ(secure.requestCount(), 1u);
  EXPECT_EQ(plain.requestCount(), 0u);
}

TEST(HttpClientTest, ShutdownAbandonsTransfersInFlight) {
  HttpTestServer server;
  holdWait(server);
  auto client = std::make_unique<HttpClient>();
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  bool called = false;
  const URLRequest request = requestFor(server.url("/wait"));
  client->start(request, [token = std::move(token), &called](HttpResult) { called = true; });
  ASSERT_TRUE(server.waitForRequests(1));
  client->shutdown();
  EXPECT_FALSE(called);
  EXPECT_TRUE(watch.expired());  // the completion was destroyed, not leaked

  // A request after shutdown is dropped the same way.
  client->start(request, [&called](HttpResult) { called = true; });
  client.reset();
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace zephlo::platform
