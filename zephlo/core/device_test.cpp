#include "zephlo/core/device.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string_view>

#include "zephlo/core/json.hpp"
#include "zephlo/core/keychain.hpp"
#include "zephlo/core/device_info.hpp"
#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/keychain_store.hpp"
#include "zephlo/socket/cbor_socket.hpp"
#include "zephlo/testing/http_test_server.hpp"
#include "zephlo/testing/log_capture.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"
#include "zephlo/testing/refusing_port.hpp"
#include "zephlo/testing/web_socket_test_server.hpp"

namespace zephlo {

// Reach the notification socket.
class ZPHDeviceTestPeer {
 public:
  static std::shared_ptr<CBORSocket> notificationSocket(ZPHDevice& device) { return device.notificationSocket_; }
};

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using platform::KeychainStore;
using testing::HttpTestServer;
using testing::WebSocketTestServer;
using Response = HttpTestServer::Response;
using Lines = std::vector<std::string>;

// An upper-case random (version 4) UUID in the 8-4-4-4-12 form.
bool isUpperCaseUuid(const std::string& id) {
  // 'x' a hex digit, '4' the version, 'y' the variant (8, 9, A or B).
  const std::string form = "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx";
  if (id.size() != form.size()) return false;
  for (std::size_t i = 0; i < form.size(); ++i) {
    const char c = id[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
    const bool variant = std::string_view("89AB").find(c) != std::string_view::npos;
    if (form[i] == 'x' ? !hex : form[i] == 'y' ? !variant : c != form[i]) return false;
  }
  return true;
}

std::string notificationJson(const std::string& url, const std::string& token) {
  return R"({"notification_url":")" + url + R"(","notification_token":")" + token + R"("})";
}

struct Outcome {
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

  // Calls `verb` with a recording callback and waits for it.
  Outcome call(const std::function<void(ZPHDevice::DeviceCallback)>& verb) {
    auto outcome = std::make_shared<Outcome>();
    verb([outcome](OptionalError error, std::shared_ptr<ZPHDevice> device) {
      *outcome = {true, std::move(error), std::move(device), platform::MainQueue::shared().isCurrent()};
    });
    EXPECT_TRUE(queue().runUntil([&] { return outcome->called; }, 20s));
    return *outcome;
  }
  // The callback ran on the main queue without an error, handed this device.
  void expectDone(const Outcome& outcome) {
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(outcome.device, device_);
    EXPECT_TRUE(outcome.onMainQueue);
  }
  Outcome registerWith(const Response& reply) {
    http_.route("PUT", path_, reply);
    return call([&](auto done) { device_->register_(done); });
  }
  // Runs the loop against a service that names `ws`, until registered and
  // connected: then the next pass and the socket's ping timer are pending.
  void runConnected(WebSocketTestServer& ws) {
    http_.route("PUT", path_, Response::json(200, notificationJson(ws.url("/n"), "t")));
    device_->runRegistrationLoop();
    ASSERT_TRUE(queue().runUntil([&] { return queue().pendingCount() == 2 && ws.openCount() == 1; }));
  }

  // The next pass starts exactly `wait` after the last one was scheduled, and
  // schedules its own successor once its registration has been answered.
  void expectNextPassAfter(std::chrono::seconds wait) {
    const auto sent = http_.requestCount();
    ASSERT_EQ(queue().pendingCount(), 1u);
    advance(wait - 1ms);
    EXPECT_EQ(http_.requestCount(), sent) << "pass ran before " << wait.count() << " s";
    EXPECT_EQ(queue().pendingCount(), 1u);
    advance(1ms);
    // The pass registers at once; its reply may already be in by now.
    ASSERT_TRUE(queue().runUntil([&] { return http_.requestCount() == sent + 1 && queue().pendingCount() == 1; }))
        << "no pass at " << wait.count() << " s";
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
  EXPECT_EQ(std::make_shared<ZPHDevice>()->id(), id_);  // kept in the keychain, not the object
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), ZPHKeychain::privateGroup()), id_);

  // The resource's own "id" never replaces the local one.
  device_->updateResource(ValueMap{{"id", "server-side"}});
  EXPECT_EQ(device_->id(), id_);

  ZPHKeychain::clearKey(kZPHDeviceIdKey(), ZPHKeychain::privateGroup());
  const auto fresh = device_->id();
  ASSERT_TRUE(fresh);
  EXPECT_TRUE(isUpperCaseUuid(*fresh)) << *fresh;
  EXPECT_NE(*fresh, id_);
}

TEST_F(ZPHDeviceTest, RegistrationSendsTokenDeviceAndMergedCustomData) {
  device_->setToken(std::make_shared<const Bytes>(Bytes{0x0A, 0xFF}));
  device_->setCustomData({{"b", 2}});
  device_->setCustomData({{"a", 1}});
  device_->setCustomData({{"b", "two"}});
  const auto outcome =
      registerWith(Response::json(200, R"({"id":"d","next_registration":120,"notification_url":null})"));
  expectDone(outcome);
  EXPECT_FALSE(device_->notificationUrl());

  const auto requests = http_.requests();
  ASSERT_EQ(requests.size(), 1u);  // the PUT routed to the device
  const Value sent = ValueMap{{"push_token", "0aff"}, {"push_provider", "APNS"},
                              {"custom_data", ValueMap{{"b", "two"}, {"a", 1}}}, {"device", ZPHDeviceInfo::info()}};
  EXPECT_EQ(json::parse(requests[0].body), sent);  // the token in lower-case hex, two digits a byte
}

TEST_F(ZPHDeviceTest, IntervalAndRetryDelayInWholeSeconds) {
  const std::pair<Value, std::uint64_t> intervals[] = {
      {120, 120}, {std::uint64_t{7200}, 7200}, {0, 0}, {-5, 0}, {90.9, 90}, {"120", 0}, {nullptr, 0},
  };
  for (const auto& [value, seconds] : intervals) {
    device_->updateResource(ValueMap{{"next_registration", value}});
    EXPECT_EQ(device_->registrationInterval(), seconds) << value.debugString();
  }

  // The first waits show in the registration loop's test.
  const std::pair<std::int32_t, std::int64_t> retries[] = {{239, 3585}, {240, 3600}, {241, 3600}, {2147483647, 3600}};
  for (const auto& [attempt, wait] : retries) EXPECT_EQ(ZPHDevice::retryDelay(attempt), wait) << attempt;
}

TEST_F(ZPHDeviceTest, RegistrationLoopRunsOnePassAtATimeOnTheSchedule) {
  http_.route("PUT", path_, Response::json(500, R"({"error":"down"})"));
  device_->runRegistrationLoop();
  ASSERT_TRUE(queue().runUntil([&] { return queue().pendingCount() == 1; }));
  EXPECT_EQ(log_.lines(), Lines{"Zephlo registration error: Request failed"});
  // One pass at a time: a loop while a pass is pending does nothing.
  device_->loop(0);
  device_->loop(3);
  EXPECT_EQ(queue().pendingCount(), 1u);
  EXPECT_FALSE(http_.waitForRequests(2, 200ms));

  // Failures: attempt 0 waits 5 s (0 x 15 raised to 5), then 15, 30, 45.
  expectNextPassAfter(5s);
  expectNextPassAfter(15s);
  expectNextPassAfter(30s);
  http_.route("PUT", path_, Response::json(200, R"({"next_registration":120})"));
  expectNextPassAfter(45s);
  // Successes wait what the service says, an hour when it says nothing or 0.
  http_.route("PUT", path_, Response::json(200, R"({"next_registration":0})"));
  expectNextPassAfter(120s);
  http_.route("PUT", path_, Response::json(200, R"({})"));
  expectNextPassAfter(3600s);
  // A failure after a success starts counting again from the first wait.
  http_.route("PUT", path_, Response::json(503, "<html></html>"));
  expectNextPassAfter(3600s);
  expectNextPassAfter(5s);
  EXPECT_EQ(log_.lines().size(), 6u);
}

TEST_F(ZPHDeviceTest, TransportErrorsAreLoggedAndReportedOnTheMainQueue) {
  testing::RefusingPort refusing;
  ZPHRESTResource::setBaseUrl(refusing.url());
  const auto outcome = call([&](auto done) { device_->register_(done); });
  EXPECT_TRUE(outcome.onMainQueue);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(log_.lines(), Lines{"Zephlo registration error: " + outcome.error->description});
}

TEST_F(ZPHDeviceTest, NotificationSocketIsOpenedKeptAndClosed) {
  WebSocketTestServer ws;
  std::vector<ValueMap> notifications;
  device_->setOnNotification([&](const ValueMap& data) { notifications.push_back(data); });
  const Value filter = ValueMap{{"events", ValueArray{"probe", "notification"}}};
  auto messages = [&](std::string_view event) {
    std::vector<Value> data;
    for (const auto& m : ws.receivedMaps())
      if (m.get("event") == Value(event)) data.push_back(m.get("data"));
    return data;
  };

  registerWith(Response::json(200, notificationJson(ws.url("/n"), "t1")));
  // Each connection asks for the given address with the given token, then sets its filter.
  auto expectConnection = [&](std::size_t n, const std::string& target, const std::string& token) {
    ASSERT_TRUE(queue().runUntil([&] { return messages("filter").size() == n + 1; }));
    ASSERT_EQ(ws.upgrades().size(), n + 1);
    EXPECT_EQ(ws.upgrades()[n].target, target);
    EXPECT_EQ(ws.upgrades()[n].header("Authorization"), "Bearer " + token);
    EXPECT_EQ(ws.upgrades()[n].header("User-Agent"), "ZephloBroadcast/1");
    EXPECT_EQ(messages("filter")[n], filter);
  };
  ASSERT_NO_FATAL_FAILURE(expectConnection(0, "/n/sockets/1/ws", "t1"));
  // Reconnects back off to a minute at most (the socket's own default is shorter).
  EXPECT_EQ(ZPHDeviceTestPeer::notificationSocket(*device_)->maxReconnectDelay(), 60.0);

  // A probe is answered with the very same data (its 1 a CBOR unsigned integer
  // both ways); notifications reach the callback.
  ws.sendMap({{"event", "probe"}, {"data", ValueMap{{"n", 1}}}, {"id", std::uint64_t{1}}});
  ASSERT_TRUE(queue().runUntil([&] { return !messages("alive").empty(); }));
  EXPECT_EQ(messages("alive")[0], Value(ValueMap{{"n", std::uint64_t{1}}}));
  ws.sendMap({{"event", "notification"}, {"data", ValueMap{{"title", "Hi"}}}, {"id", std::uint64_t{2}}});
  ASSERT_TRUE(queue().runUntil([&] { return !notifications.empty(); }));
  EXPECT_EQ(Value(notifications[0]), Value(ValueMap{{"title", "Hi"}}));

  // New values keep the open socket; the next connection uses them.
  registerWith(Response::json(200, notificationJson(ws.url("/m"), "t2")));
  EXPECT_EQ(ws.acceptedCount(), 1u);
  ws.dropConnections();
  ASSERT_TRUE(queue().runUntil([&] { return ws.openCount() == 0; }));
  // The client learns of the drop a little after the server: move the clock
  // until the reconnect arrives (within the 60 s ceiling) and no further, or the
  // handshake's own timeout on the same clock would fire.
  ASSERT_TRUE(queue().runUntil([&] {
    if (ws.acceptedCount() < 2) advance(1s);
    return ws.acceptedCount() == 2;
  }));
  ASSERT_NO_FATAL_FAILURE(expectConnection(1, "/m/sockets/1/ws", "t2"));
  EXPECT_TRUE(log_.lines().empty());

  // A registration without URL or token closes it.
  registerWith(Response::json(200, R"({"notification_url":")" + ws.url("/m") + R"("})"));
  EXPECT_EQ(log_.lines(), Lines{"Zephlo: Closing socket"});
  ASSERT_TRUE(queue().runUntil([&] { return ws.openCount() == 0 && !ws.closeCodes().empty(); }));
  EXPECT_EQ(ws.closeCodes().back(), 1000);
  registerWith(Response::json(200, "{}"));
  EXPECT_EQ(log_.lines().size(), 1u);  // nothing left to close
}

TEST_F(ZPHDeviceTest, ResetStopsEverythingQuietlyAndDeregisterDeletesToo) {
  WebSocketTestServer ws;
  runConnected(ws);
  device_->reset();
  EXPECT_EQ(device_->resource(), Value(ValueMap{}));
  ASSERT_TRUE(queue().runUntil([&] { return ws.openCount() == 0; }));
  EXPECT_EQ(queue().pendingCount(), 0u);  // no further pass

  http_.route("DELETE", path_, Response::json(204, ""));
  device_->setCustomData({{"a", 1}});
  runConnected(ws);
  const auto outcome = call([&](auto done) {
    device_->deregister(done);
    // Emptied at once, before the reply.
    EXPECT_TRUE(device_->customData().empty());
    EXPECT_EQ(device_->resource(), Value(ValueMap{}));
    EXPECT_EQ(queue().pendingCount(), 0u);
  });
  expectDone(outcome);  // the DELETE routed to the device
  EXPECT_TRUE(device_->resource().isNull());  // the 204 reply, taken as the resource
  ASSERT_TRUE(queue().runUntil([&] { return ws.openCount() == 0; }));
  EXPECT_EQ(http_.requestCount(), 3u);
  advance(7200s);
  EXPECT_EQ(http_.requestCount(), 3u);
  EXPECT_TRUE(log_.lines().empty());
}

}  // namespace
}  // namespace zephlo
