#include "zephlo/core/request.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <future>

#include "zephlo/platform/bundle.hpp"
#include "zephlo/testing/refusing_port.hpp"
#include "zephlo/testing/http_test_server.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo {
namespace {

using testing::HttpTestServer;
using Response = HttpTestServer::Response;

struct Reply {
  bool called = false;
  bool onMainQueue = false;
  bool onHttpThread = false;
  OptionalError error;
  Value body;
  std::shared_ptr<const HTTPResponse> response;
};

// A callback that fills `reply`, then runs `then`.
auto into(Reply& reply, std::function<void()> then = [] {}) {
  return [&reply, then](OptionalError error, Value body, std::shared_ptr<const HTTPResponse> response) {
    reply.onMainQueue = platform::MainQueue::shared().isCurrent();
    reply.onHttpThread = platform::HttpClient::shared().isCurrent();
    reply.error = std::move(error);
    reply.body = std::move(body);
    reply.response = std::move(response);
    reply.called = true;
    then();
  };
}

class ZPHRequestTest : public testing::MainQueueTest {
 protected:
  // Sends a request and pumps the main queue until its callback has run there.
  Reply send(const std::string& url, const ValueMap& options) {
    Reply reply;
    ZPHRequest::request(url, options, into(reply));
    EXPECT_TRUE(queue().runUntil([&] { return reply.called; }));
    return reply;
  }

  // A failure before any reply: no body, no response.
  static void expectFailed(const Reply& reply, std::string_view domain, int code) {
    ASSERT_TRUE(reply.error);
    EXPECT_EQ(reply.error->domain, domain);
    EXPECT_EQ(reply.error->code, code);
    EXPECT_TRUE(reply.body.isNull());
    EXPECT_FALSE(reply.response);
  }

  HttpTestServer server_;
};

// The only test that writes the process-wide default headers, so it can see them
// start empty whatever order the tests run in.
TEST_F(ZPHRequestTest, DefaultHeadersStartEmptyMergeAndGoOnEveryRequest) {
  EXPECT_TRUE(ZPHRequest::urlRequest("http://x/").headers.empty());

  ZPHRequest::setHeaders({{"X-ZephloPlatform", "ios"}, {"X-ZephloDevice", "A"}});
  ZPHRequest::setHeaders({{"X-ZephloDevice", "B"}, {"X-ZephloSDKVersion", "2.6.0-alpha.1"}});
  const ZPHRequest::HeaderMap expected{
      {"X-ZephloPlatform", "ios"}, {"X-ZephloDevice", "B"}, {"X-ZephloSDKVersion", "2.6.0-alpha.1"}};
  EXPECT_EQ(ZPHRequest::headers(), expected);

  EXPECT_EQ(ZPHRequest::urlRequest("http://x/a").timeout, std::chrono::seconds(60));
  // Socket requests carry them too; their URL, token and agent show in the device's socket test.
  const auto socket = ZPHRequest::socketRequest("wss://s.example/c/1", "tok");
  EXPECT_EQ(socket.header("X-ZephloDevice"), "B");
  EXPECT_EQ(socket.timeout, std::chrono::seconds(10));
  // A bundle entry that is missing shows as "(null)" in the user agent.
  auto bundle = platform::Bundle::fromJson(R"({"CFBundleVersion": "7"})", nullptr);
  ASSERT_TRUE(bundle);
  platform::Bundle::setMain(*bundle);
  const auto unnamed = ZPHRequest::socketRequest("ws://h", "t");
  platform::Bundle::setMain(platform::Bundle::demo());
  EXPECT_EQ(unnamed.header("User-Agent"), "(null)/7");

  // Every REST call carries them, with the JSON content type even without a body.
  server_.route("DELETE", "/r", Response::json(200, "{}"));
  send(server_.url("/r"), ValueMap{{"method", "DELETE"}});
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "DELETE");
  for (const auto& [name, value] : expected) EXPECT_EQ(requests[0].header(name), value) << name;
  EXPECT_EQ(requests[0].header("Content-Type"), "application/json; charset=utf-8");
  EXPECT_TRUE(requests[0].body.empty());
}

TEST_F(ZPHRequestTest, OutcomesReachTheMainQueueInTheirOrder) {
  const Error decodeError{std::string(kJSONErrorDomain), kJSONDecodeError, ""};
  Response htmlUnavailable;
  htmlUnavailable.status = 503;
  htmlUnavailable.headers.emplace_back("Content-Type", "text/html");
  htmlUnavailable.headers.emplace_back("X-Request-Id", "r-9");
  htmlUnavailable.body = "<html><body>Service Unavailable</body></html>";
  const struct {
    const char* name;
    Response reply;
    std::optional<Error> error;  // descriptions of JSON errors are not compared
    Value body;
  } cases[] = {  // objects, a 204 and a message of its own show in the resource tests
      {"201 with an array", Response::json(201, "[1,2]"), std::nullopt, ValueArray{1, 2}},
      {"200 empty", Response::json(200, ""), decodeError, Value()},  // what else fails to parse: the JSON tests
      {"500 without message", Response::json(500, R"({"error":"boom"})"), ZPHError("Request failed", 500),
       ValueMap{{"error", "boom"}}},
      {"422 with a non-text message", Response::json(422, R"({"message":5})"), ZPHError("Request failed", 422),
       ValueMap{{"message", 5}}},
      {"400 with an array", Response::json(400, "[]"), ZPHError("Request failed", 400), ValueArray{}},
      {"503 with HTML", htmlUnavailable, decodeError, Value()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    server_.route("GET", "/o", c.reply);
    const Reply reply = send(server_.url("/o"), {});
    EXPECT_TRUE(reply.onMainQueue);
    ASSERT_TRUE(reply.response);
    EXPECT_EQ(reply.response->statusCode, c.reply.status);
    for (auto [name, value] : c.reply.headers) {  // whatever the case of the name
      std::transform(name.begin(), name.end(), name.begin(), [](unsigned char ch) { return std::tolower(ch); });
      EXPECT_EQ(reply.response->header(name), value) << name;
    }
    EXPECT_EQ(reply.body, c.body);
    ASSERT_EQ(reply.error.has_value(), c.error.has_value());
    if (!c.error) continue;
    EXPECT_EQ(reply.error->domain, c.error->domain);
    EXPECT_EQ(reply.error->code, c.error->code);
    if (c.error->domain == kZephloErrorDomain) {
      EXPECT_EQ(reply.error->description, c.error->description);
    } else {
      EXPECT_FALSE(reply.error->description.empty());
    }
  }
}

// Error paths.

TEST_F(ZPHRequestTest, UnencodableBodyFailsOnTheMainQueueWithoutTraffic) {
  server_.route("POST", "/e", Response::json(200, "{}"));
  // What JSON cannot carry is listed in the JSON tests; bytes are one such thing.
  Reply reply;
  ZPHRequest::request(server_.url("/e"), ValueMap{{"method", "POST"}, {"body", ValueMap{{"image", Bytes{0xff}}}}},
                      into(reply));
  EXPECT_FALSE(reply.called);  // posted, never called from inside `request`
  ASSERT_TRUE(queue().runUntil([&] { return reply.called; }));
  EXPECT_TRUE(reply.onMainQueue);
  expectFailed(reply, kJSONErrorDomain, kJSONEncodeError);
  // A later good request is the first the server sees.
  send(server_.url("/e"), ValueMap{{"method", "POST"}, {"body", ValueMap{}}});
  EXPECT_EQ(server_.requestCount(), 1u);
}

TEST_F(ZPHRequestTest, TransportErrorIsCalledBackOnTheHttpThread) {
  testing::RefusingPort refusing;
  const std::string closedUrl = refusing.url("/r");
  Reply reply;
  std::promise<void> done;
  ZPHRequest::request(closedUrl, {}, into(reply, [&done] { done.set_value(); }));
  // The main queue is not pumped: the callback must not need it.
  ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_FALSE(reply.onMainQueue);
  EXPECT_TRUE(reply.onHttpThread);
  expectFailed(reply, kURLLoadingErrorDomain, kURLErrorCannotConnectToHost);
}

}  // namespace
}  // namespace zephlo
