#include "zephlo/core/rest_resource.hpp"

#include <gtest/gtest.h>

#include "zephlo/core/request.hpp"
#include "zephlo/testing/http_test_server.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"

namespace zephlo {
namespace {

using testing::HttpTestServer;
using Response = HttpTestServer::Response;

// A resource at a fixed URL.
class Thing : public ZPHRESTResource {
 public:
  explicit Thing(std::string url) : url_(std::move(url)) {}
  std::string url() const override { return url_; }

 private:
  std::string url_;
};

struct Outcome {
  bool called = false;
  OptionalError error;
  std::shared_ptr<ZPHRESTResource> resource;
};

class ZPHRESTResourceTest : public testing::MainQueueTest {
 protected:
  // Starts a call with a recording callback and waits for its outcome.
  Outcome run(const std::function<void(ZPHRESTResource::ResourceCallback)>& start) {
    Outcome outcome;
    start([&outcome](OptionalError error, std::shared_ptr<ZPHRESTResource> resource) {
      outcome = {true, std::move(error), std::move(resource)};
    });
    EXPECT_TRUE(queue().runUntil([&] { return outcome.called; }));
    return outcome;
  }

  HttpTestServer server_;
};

TEST_F(ZPHRESTResourceTest, NewResourceIsAnEmptyMapAndIdReadsTextOrIntegerIds) {
  const auto thing = std::make_shared<ZPHRESTResource>();
  EXPECT_EQ(thing->resource(), Value(ValueMap{}));
  EXPECT_FALSE(thing->id());
  const std::pair<Value, std::optional<std::string>> cases[] = {
      {"s-1", "s-1"}, {42, "42"}, {std::uint64_t{18446744073709551615ull}, "18446744073709551615"},
      {1.5, std::nullopt}, {nullptr, std::nullopt}, {ValueMap{}, std::nullopt}};
  for (const auto& [id, expected] : cases) {
    thing->updateResource(ValueMap{{"id", id}});
    EXPECT_EQ(thing->id(), expected) << id.debugString();
  }
  thing->updateResource(ValueArray{});
  EXPECT_TRUE(thing->field("id").isNull());
}

TEST_F(ZPHRESTResourceTest, VerbsMapOntoRequestsAndTakeTheReply) {
  const ValueMap body{{"state", "active"}, {"full_device", true}};
  const struct {
    const char* method;
    std::function<void(Thing&, ZPHRESTResource::ResourceCallback)> call;
    std::string sentBody;
  } cases[] = {
      {"GET", [](Thing& t, auto cb) { t.fetch(std::move(cb)); }, ""},
      {"POST", [&](Thing& t, auto cb) { t.create(body, std::move(cb)); }, R"({"state":"active","full_device":true})"},
      {"PUT", [&](Thing& t, auto cb) { t.update(body, std::move(cb)); }, R"({"state":"active","full_device":true})"},
      {"DELETE", [](Thing& t, auto cb) { t.delete_(std::move(cb)); }, ""},
  };
  std::size_t n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method);
    server_.route(c.method, "/things/1", Response::json(200, std::string(R"({"id":"1","via":")") + c.method + "\"}"));
    const auto thing = std::make_shared<Thing>(server_.url("/things/1"));
    const Outcome outcome = run([&](auto cb) { c.call(*thing, std::move(cb)); });
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(outcome.resource, thing);
    EXPECT_EQ(thing->field("via"), Value(c.method));
    EXPECT_EQ(thing->id(), "1");
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), ++n);
    EXPECT_EQ(requests.back().method, c.method);
    EXPECT_EQ(requests.back().target, "/things/1");
    EXPECT_EQ(requests.back().body, c.sentBody);
  }
}

// Error paths.

TEST_F(ZPHRESTResourceTest, FailedCallLeavesTheResourceAndPassesTheError) {
  const Value before = ValueMap{{"id", "t"}, {"name", "old"}};
  const auto thing = std::make_shared<Thing>(server_.url("/t"));
  thing->updateResource(before);

  server_.route("PUT", "/t", Response::json(422, R"({"message":"name is taken","id":"other"})"));
  const Outcome outcome = run([&](auto cb) { thing->update(ValueMap{{"name", "new"}}, std::move(cb)); });
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(*outcome.error, ZPHError("name is taken", 422));
  EXPECT_EQ(outcome.resource, thing);
  EXPECT_EQ(thing->resource(), before);
}

}  // namespace
}  // namespace zephlo
