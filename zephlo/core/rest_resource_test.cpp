#include "zephlo/core/rest_resource.hpp"

#include <gtest/gtest.h>

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
