#include "zephlo/core/device.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "zephlo/core/json.hpp"
#include "zephlo/core/keychain.hpp"
#include "zephlo/extension/device_info.hpp"
#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/keychain_store.hpp"
#include "zephlo/testing/refusing_port.hpp"
#include "zephlo/testing/http_test_server.hpp"
#include "zephlo/testing/log_capture.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"
#include "zephlo/testing/web_socket_test_server.hpp"

namespace zephlo {
namespace {

// An upper-case random (version 4) UUID in the 8-4-4-4-12 form.
bool isUpperCaseUuid(const std::string& id) {
  if (id.size() != 36) return false;
  for (std::size_t i = 0; i < id.size(); ++i) {
    const char c = id[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return false;
    } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
      return false;
    }
  }
  return id[14] == '4' && (id[19] == '8' || id[19] == '9' || id[19] == 'A' || id[19] == 'B');
}

namespace fs = std::filesystem;
using platform::KeychainStore;
using testing::HttpTestServer;
using testing::WebSocketTestServer;
using Response = HttpTestServer::Response;

struct Registered {
  bool called = false;
  OptionalError error;
  std::shared_ptr<ZPHDevice> device;
  bool onMainQueue = false;
};

class ZPHDeviceTest : public testing::MainQueueTest {
 protected:
  void SetUp() override {
    MainQueueTest::SetUp();
    platform::Bundle::setMain(platform::Bundle::demo());
    char pattern[] = "/tmp/device_test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    store_ = KeychainStore::open((dir_ / "keychain.db").string());
    ASSERT_TRUE(store_->isOpen()) << store_->openError();
    KeychainStore::setShared(store_);
    ZPHRESTResource::setBaseUrl(http_.url(""));
    device_ = std::make_shared<ZPHDevice>();
    id_ = *device_->id();
    path_ = "/api/1/devices/" + id_;
  }
  void TearDown() override {
    device_->reset();
    device_.reset();
    ZPHRESTResource::setBaseUrl(std::nullopt);
    KeychainStore::setShared(nullptr);
    fs::remove_all(dir_);
    MainQueueTest::TearDown();
  }

  Registered registerWith(const Response& reply) {
    http_.route("PUT", path_, reply);
    auto outcome = std::make_shared<Registered>();
    device_->register_([outcome](OptionalError error, std::shared_ptr<ZPHDevice> device) {
      outcome->called = true;
      outcome->error = std::move(error);
      outcome->device = std::move(device);
      outcome->onMainQueue = platform::MainQueue::shared().isCurrent();
    });
    EXPECT_TRUE(queue().runUntil([&] { return outcome->called; }));
    return *outcome;
  }

  // The next pass starts exactly `wait` after the last one was scheduled, and
  // schedules its own successor once its registration has been answered.
  void expectNextPassAfter(std::chrono::seconds wait) {
    const auto sent = http_.requestCount();
    ASSERT_EQ(queue().pendingCount(), 1u);
    advance(wait - std::chrono::milliseconds(1));
    EXPECT_EQ(http_.requestCount(), sent) << "pass ran before " << wait.count() << " s";
    EXPECT_EQ(queue().pendingCount(), 1u);
    advance(std::chrono::milliseconds(1));
    // The pass registers at once; its reply may already be in by now.
    ASSERT_TRUE(queue().runUntil([&] {
      return http_.requestCount() == sent + 1 && queue().pendingCount() == 1;
    })) << "no pass at " << wait.count() << " s";
  }

  fs::path dir_;
  std::shared_ptr<KeychainStore> store_;
  HttpTestServer http_;
  std::shared_ptr<ZPHDevice> device_;
  std::string id_;
  std::string path_;
  testing::LogCapture log_;
};

TEST_F(ZPHDeviceTest, IdIsAStoredUpperCaseUuid) {
  EXPECT_TRUE(isUpperCaseUuid(id_)) << id_;
  EXPECT_EQ(device_->id(), id_);
  EXPECT_EQ(std::make_shared<ZPHDevice>()->id(), id_);  // kept in the keychain, not the object
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), ZPHKeychain::privateGroup()), id_);
  EXPECT_EQ(device_->url(), http_.url("/api/1/devices/") + id_);

  // The resource's own "id" never replaces the local one.
  device_->updateResource(ValueMap{{"id", "server-side"}});
  EXPECT_EQ(device_->id(), id_);

  ZPHKeychain::clearKey(kZPHDeviceIdKey(), ZPHKeychain::privateGroup());
  const auto fresh = device_->id();
  ASSERT_TRUE(fresh);
  EXPECT_TRUE(isUpperCaseUuid(*fresh)) << *fresh;
  EXPECT_NE(*fresh, id_);
  EXPECT_EQ(device_->id(), fresh);
}

TEST_F(ZPHDeviceTest, TokenIsLowerCaseHex) {
  const std::pair<SharedBytes, std::string> cases[] = {
      {std::make_shared<const Bytes>(Bytes{0x0A, 0xFF}), "0aff"},
      {std::make_shared<const Bytes>(Bytes{0x00, 0x10, 0xAB, 0x7F}), "0010ab7f"},
      {std::make_shared<const Bytes>(Bytes{}), ""},
      {nullptr, ""},
  };
  for (const auto& [token, hex] : cases) EXPECT_EQ(ZPHDevice::stringWithDeviceToken(token), hex);
}

TEST_F(ZPHDeviceTest, CustomDataMergesAndIsHandedOutAsACopy) {
  device_->setCustomData({{"b", 2}});
  device_->setCustomData({{"a", 1}});
  auto copy = device_->customData();
  EXPECT_EQ(Value(copy), Value(ValueMap{{"b", 2}, {"a", 1}}));
  copy.set("c", 3);
  EXPECT_FALSE(device_->customData().contains("c"));
  device_->setCustomData({{"b", "two"}});
  EXPECT_EQ(device_->customData().get("b"), Value("two"));
}

TEST_F(ZPHDeviceTest, RegistrationSendsTokenDeviceAndCustomData) {
  device_->setToken(std::make_shared<const Bytes>(Bytes{0x0A, 0xFF}));
  device_->setCustomData({{"plan", "gold"}});
  const auto outcome =
      registerWith(Response::json(200, R"({"id":"d","next_registration":120,"notification_url":null})"));
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.device, device_);
  EXPECT_TRUE(outcome.onMainQueue);
  EXPECT_EQ(device_->registrationInterval(), 120u);
  EXPECT_FALSE(device_->notificationUrl());

  const auto requests = http_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "PUT");
  EXPECT_EQ(requests[0].target, path_);
  const auto body = json::parse(requests[0].body);
  ASSERT_TRUE(body && body->isMap());
  const auto& sent = *body->asMap();
  EXPECT_EQ(sent.size(), 4u);
  EXPECT_EQ(sent.get("push_token"), Value("0aff"));
  EXPECT_EQ(sent.get("push_provider"), Value("APNS"));
  EXPECT_EQ(sent.get("custom_data"), Value(ValueMap{{"plan", "gold"}}));
  EXPECT_EQ(sent.get("device"), Value(ZPHDeviceInfo::info()));
}

TEST_F(ZPHDeviceTest, RegistrationIntervalReadsWholeSeconds) {
  const std::pair<Value, std::uint64_t> cases[] = {
      {120, 120}, {std::uint64_t{7200}, 7200}, {0, 0}, {-5, 0}, {90.9, 90}, {"120", 0}, {nullptr, 0},
  };
  for (const auto& [value, seconds] : cases) {
    device_->updateResource(ValueMap{{"next_registration", value}});
    EXPECT_EQ(device_->registrationInterval(), seconds) << value.debugString();
  }
  device_->updateResource(ValueMap{});
  EXPECT_EQ(device_->registrationInterval(), 0u);
}

TEST_F(ZPHDeviceTest, RegistrationLoopFollowsTheSchedule) {
  http_.route("PUT", path_, Response::json(500, R"({"error":"down"})"));
  device_->runRegistrationLoop();
  ASSERT_TRUE(queue().runUntil([&] { return queue().pendingCount() == 1; }));
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"Zephlo registration error: Request failed"});

  // Failures: attempt 0 waits 5 s (0 x 15 raised to 5), then 15, 30, 45.
  expectNextPassAfter(std::chrono::seconds(5));
  expectNextPassAfter(std::chrono::seconds(15));
  expectNextPassAfter(std::chrono::seconds(30));
  http_.route("PUT", path_, Response::json(200, R"({"next_registration":120})"));
  expectNextPassAfter(std::chrono::seconds(45));
  // Successes wait what the service says, an hour when it says nothing or 0.
  http_.route("PUT", path_, Response::json(200, R"({"next_registration":0})"));
  expectNextPassAfter(std::chrono::seconds(120));
  http_.route("PUT", path_, Response::json(200, R"({})"));
  expectNextPassAfter(std::chrono::seconds(3600));
  // A failure after a success starts counting again from the first wait.
  http_.route("PUT", path_, Response::json(503, "<html></html>"));
  expectNextPassAfter(std::chrono::seconds(3600));
  expectNextPassAfter(std::chrono::seconds(5));
  EXPECT_EQ(log_.lines().size(), 6u);
}

TEST_F(ZPHDeviceTest, RetryDelayIsCappedAtAnHour) {
  const std::pair<std::int32_t, std::int64_t> cases[] = {
      {0, 5}, {1, 15}, {2, 30}, {3, 45}, {239, 3585}, {240, 3600}, {241, 3600}, {2147483647, 3600},
  };
  for (const auto& [attempt, wait] : cases) EXPECT_EQ(ZPHDevice::retryDelay(attempt), wait) << attempt;
}

TEST_F(ZPHDeviceTest, LoopWhileAPassIsPendingDoesNothing) {
  http_.route("PUT", path_, Response::json(200, R"({"next_registration":60})"));
  device_->runRegistrationLoop();
  ASSERT_TRUE(queue().runUntil([&] { return queue().pendingCount() == 1; }));
  device_->loop(0);
  device_->loop(3);
  EXPECT_EQ(queue().pendingCount(), 1u);
  EXPECT_FALSE(http_.waitForRequests(2, std::chrono::milliseconds(200)));
  expectNextPassAfter(std::chrono::seconds(60));
}

TEST_F(ZPHDeviceTest, TransportErrorsAreRetriedOnTheMainQueue) {
  testing::RefusingPort refusing;
  const std::string closed = refusing.url();
  ZPHRESTResource::setBaseUrl(closed);
  Registered outcome;
  device_->register_([&](OptionalError error, std::shared_ptr<ZPHDevice>) {
    outcome.called = true;
    outcome.error = std::move(error);
    outcome.onMainQueue = platform::MainQueue::shared().isCurrent();
  });
  ASSERT_TRUE(queue().runUntil([&] { return outcome.called; }, std::chrono::seconds(20)));
  EXPECT_TRUE(outcome.onMainQueue);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain, kURLLoadingErrorDomain);
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(log_.lines()[0], "Zephlo registration error: " + outcome.error->description);
}

TEST_F(ZPHDeviceTest, NotificationSocketIsOpenedKeptAndClosed) {
  WebSocketTestServer ws;
  std::vector<ValueMap> notifications;
  device_->setOnNotification([&](const ValueMap& data) { notifications.push_back(data); });
  const ValueMap filter{{"events", ValueArray{"probe", "notification"}}};
  auto messages = [&](std::string_view event) {
    std::vector<Value> data;
    for (const auto& m : ws.receivedMaps())
      if (m.get("event") == Value(event)) data.push_back(m.get("data"));
    return data;
  };

  registerWith(Response::json(200, R"({"notification_url":")" + ws.url("/n") + R"(","notification_token":"t1"})"));
  ASSERT_TRUE(queue().runUntil([&] { return messages("filter").size() == 1; }));
  ASSERT_EQ(ws.upgrades().size(), 1u);
  EXPECT_EQ(ws.upgrades()[0].target, "/n/sockets/1/ws");
  EXPECT_EQ(ws.upgrades()[0].header("Authorization"), "Bearer t1");
  EXPECT_EQ(ws.upgrades()[0].header("User-Agent"), "ZephloBroadcast/1");
  EXPECT_EQ(messages("filter")[0], Value(filter));

  // A probe is answered with the very same data; notifications reach the callback.
  ws.sendMap({{"event", "probe"}, {"data", ValueMap{{"n", 1}}}, {"id", std::uint64_t{1}}});
  ASSERT_TRUE(queue().runUntil([&] { return !messages("alive").empty(); }));
  // The probe's 1 travels as a CBOR unsigned integer both ways.
  EXPECT_EQ(messages("alive")[0], Value(ValueMap{{"n", std::uint64_t{1}}}));
  ws.sendMap({{"event", "notification"}, {"data", ValueMap{{"title", "Hi"}}}, {"id", std::uint64_t{2}}});
  ASSERT_TRUE(queue().runUntil([&] { return !notifications.empty(); }));
  EXPECT_EQ(Value(notifications[0]), Value(ValueMap{{"title", "Hi"}}));

  // New values keep the open socket; the next connection uses them.
  registerWith(Response::json(200, R"({"notification_url":")" + ws.url("/m") + R"(","notification_token":"t2"})"));
  EXPECT_EQ(ws.acceptedCount(), 1u);
  ws.dropConnections();
  ASSERT_TRUE(queue().runUntil([&] { return ws.openCount() == 0; }));
  // The client learns of the drop a little after the server: move the clock until
  // the reconnect arrives (within the 60 s ceiling), and no further, or the
  // handshake's own timeout on the same clock would fire.
  ASSERT_TRUE(queue().runUntil([&] {
    if (ws.acceptedCount() < 2) advance(std::chrono::seconds(1));
    return messages("filter").size() == 2;
  }));
  ASSERT_EQ(ws.upgrades().size(), 2u);
  EXPECT_EQ(ws.upgrades()[1].target, "/m/sockets/1/ws");
  EXPECT_EQ(ws.upgrades()[1].header("Authorization"), "Bearer t2");
  EXPECT_EQ(messages("filter")[1], Value(filter));
  EXPECT_TRUE(log_.lines().empty());

  // A registration without URL or token closes it.
  registerWith(Response::json(200, R"({"notification_url":")" + ws.url("/m") + R"("})"));
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"Zephlo: Closing socket"});
  ASSERT_TRUE(queue().runUntil([&] { return ws.openCount() == 0 && !ws.closeCodes().empty(); }));
  EXPECT_EQ(ws.closeCodes().back(), 1000);
  registerWith(Response::json(200, "{}"));
  EXPECT_EQ(log_.lines().size(), 1u);  // nothing left to close
}

TEST_F(ZPHDeviceTest, ResetStopsEverythingQuietly) {
  WebSocketTestServer ws;
  http_.route("PUT", path_,
              Response::json(200, R"({"notification_url":")" + ws.url("/n") + R"(","notification_token":"t"})"));
  device_->runRegistrationLoop();
  // Registered and connected: the next pass and the socket's ping timer are pending.
  ASSERT_TRUE(queue().runUntil([&] { return queue().pendingCount() == 2 && ws.openCount() == 1; }));
  device_->reset();
  EXPECT_EQ(device_->resource(), Value(ValueMap{}));
  EXPECT_FALSE(device_->notificationUrl());
  ASSERT_TRUE(queue().runUntil([&] { return ws.openCount() == 0; }));
  EXPECT_EQ(queue().pendingCount(), 0u);
  EXPECT_TRUE(log_.lines().empty());
  advance(std::chrono::seconds(7200));
  EXPECT_EQ(http_.requestCount(), 1u);
}

TEST_F(ZPHDeviceTest, DeregisterEmptiesDataClosesSocketAndDeletes) {
  WebSocketTestServer ws;
  http_.route("PUT", path_,
              Response::json(200, R"({"notification_url":")" + ws.url("/n") + R"(","notification_token":"t"})"));
  http_.route("DELETE", path_, Response::json(204, ""));
  device_->setCustomData({{"a", 1}});
  device_->runRegistrationLoop();
  // Registered and connected: the next pass and the socket's ping timer are pending.
  ASSERT_TRUE(queue().runUntil([&] { return queue().pendingCount() == 2 && ws.openCount() == 1; }));

  Registered outcome;
  device_->deregister([&](OptionalError error, std::shared_ptr<ZPHDevice> device) {
    outcome.called = true;
    outcome.error = std::move(error);
    outcome.device = std::move(device);
  });
  // Emptied at once, before the reply.
  EXPECT_TRUE(device_->customData().empty());
  EXPECT_EQ(device_->resource(), Value(ValueMap{}));
  EXPECT_EQ(queue().pendingCount(), 0u);
  ASSERT_TRUE(queue().runUntil([&] { return outcome.called && ws.openCount() == 0; }));
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.device, device_);
  EXPECT_TRUE(device_->resource().isNull());  // the 204 reply, taken as the resource
  const auto requests = http_.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].method, "DELETE");
  EXPECT_EQ(requests[1].target, path_);
  EXPECT_TRUE(log_.lines().empty());
}

}  // namespace
}  // namespace zephlo
