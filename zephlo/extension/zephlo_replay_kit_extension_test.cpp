#include "zephlo/extension/zephlo_replay_kit_extension.hpp"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "zephlo/core/device.hpp"
#include "zephlo/core/keychain.hpp"
#include "zephlo/core/request.hpp"
#include "zephlo/core/rest_resource.hpp"
#include "zephlo/core/device_info.hpp"
#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/keychain_store.hpp"
#include "zephlo/platform/screen.hpp"
#include "zephlo/testing/http_test_server.hpp"
#include "zephlo/testing/log_capture.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"
#include "zephlo/testing/refusing_port.hpp"
#include "zephlo/testing/web_socket_test_server.hpp"

namespace zephlo {

// Reaches the controller's private parts, for looking at its session and frame source.
class ZephloReplayKitExtensionTestPeer {
 public:
  explicit ZephloReplayKitExtensionTestPeer(ZephloReplayKitExtension& controller) : c_(controller) {}
  const std::shared_ptr<ZPHSession>& session() { return c_.session_; }
  const std::shared_ptr<ZPHReplayKitFrameSource>& frameSource() { return c_.frameSource_; }

 private:
  ZephloReplayKitExtension& c_;
};

namespace {

using namespace std::chrono_literals;
using testing::HttpTestServer;
using Lines = std::vector<std::string>;

constexpr char kSessionPath[] = "/api/1/sessions/S1";

std::string sessionJson(const std::string& state, bool fullDevice) {
  return R"({"type":"Session","id":"S1","state":")" + state + R"(","full_device":)" + (fullDevice ? "true" : "false") + "}";
}

Value session(const std::string& state, bool fullDevice) {
  return Value(ValueMap{{"type", "Session"}, {"id", "S1"}, {"state", Value(state)}, {"full_device", fullDevice}});
}

platform::SampleBuffer sampleOf(std::uint8_t shade) {
  auto buffer = platform::PixelBuffer::create(platform::PixelFormat::BGRA, 200, 400);
  for (int y = 0; y < 400; ++y) std::fill_n(buffer->mutablePlane(0) + y * buffer->stride(0), 200 * 4, shade);
  return platform::SampleBuffer(std::move(buffer), 1);
}

class ZephloReplayKitExtensionTest : public testing::MainQueueTest {
 protected:
  void SetUp() override {
    MainQueueTest::SetUp();
    char pattern[] = "/tmp/zephlo-extension-test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    platform::Bundle::setMain(platform::Bundle::demo());
    platform::KeychainStore::setShared(platform::KeychainStore::open((dir_ / "keychain.db").string()));
    platform::Screen::setMain({100, 200, 2});
    ZPHRESTResource::setBaseUrl(std::nullopt);
  }
  void TearDown() override {
    // Scheduled finishes hold the controller; let them run, then end it.
    advance(ZephloReplayKitExtension::kFinishDelay);
    controller_.reset();
    queue().poll();
    MainQueueTest::TearDown();
    platform::KeychainStore::setShared(nullptr);
    std::filesystem::remove_all(dir_);
  }

  void store(const std::string& value, std::string_view key) {
    ZPHKeychain::setValue(value, key, ZPHKeychain::sharedGroup());
  }
  void create() {
    controller_ = ZephloReplayKitExtension::init();
    controller_->setFinishHandler([this](const Error& error) { finishes_.push_back(error); });
  }
  // Starts with both items stored and waits for the full-device reply.
  void startWithReply(int status, const std::string& body) {
    store(http_.url(), kZPHApiKey);
    store("S1", kZPHSessionStorageKey);
    http_.route("PUT", kSessionPath, HttpTestServer::Response::json(status, body));
    create();
    ASSERT_TRUE(queue().runUntil([&] { return !peer().session()->state().isNull() || !finishes_.empty(); }));
  }
  // The controller's own end: `message` is logged at once, and the broadcast
  // ends with it 200 ms later.
  void expectFinish(const std::string& message) {
    EXPECT_EQ(log_.lines(), Lines{message});
    advance(ZephloReplayKitExtension::kFinishDelay - 1ms);
    EXPECT_TRUE(finishes_.empty());
    advance(1ms);
    EXPECT_EQ(finishes_, std::vector<Error>{ZPHError(message, 400)});
    EXPECT_EQ(log_.lines(), Lines{message});
  }
  ZephloReplayKitExtensionTestPeer peer() { return ZephloReplayKitExtensionTestPeer(*controller_); }
  bool running() { return controller_->frameLoop()->isRunning(); }

  std::filesystem::path dir_;
  testing::LogCapture log_;
  HttpTestServer http_;
  std::shared_ptr<ZephloReplayKitExtension> controller_;
  std::vector<Error> finishes_;
};

TEST_F(ZephloReplayKitExtensionTest, MissingApiEndsBeforeASessionOrStreamExists) {
  store("S1", kZPHSessionStorageKey);
  create();
  EXPECT_EQ(ZPHRESTResource::baseUrl(), std::nullopt);
  expectFinish("API missing");

  // Nothing to stream: scale 0, and frames go nowhere while the loop runs.
  EXPECT_EQ(controller_->scale(), 0.0);
  int called = 0;
  controller_->handleFrame(platform::Bitmap::create(4, 4), [&](bool) { ++called; });
  controller_->broadcastResumed();
  EXPECT_TRUE(running());
  controller_->processSampleBuffer(sampleOf(50), platform::kSampleBufferTypeVideo);
  advance(300ms);
  EXPECT_EQ(called, 0);
  EXPECT_EQ(finishes_.size(), 1u);
  EXPECT_EQ(http_.requestCount(), 0u);
}

TEST_F(ZephloReplayKitExtensionTest, MissingSessionConfiguresTheServiceLayerThenEnds) {
  store(http_.url(), kZPHApiKey);
  create();
  auto headers = ZPHRequest::headers();
  EXPECT_EQ(headers["X-ZephloPlatform"], "ios");
  EXPECT_EQ(headers["X-ZephloSDKVersion"], kZephloVersionString);
  EXPECT_EQ(headers["X-ZephloDevice"], ZPHDevice::instance()->id().value_or("?"));
  expectFinish("No session available");
}

TEST_F(ZephloReplayKitExtensionTest, ActiveFullDeviceReplyStartsTheLoopAndVideoSamplesReachTheSource) {
  startWithReply(200, sessionJson("active", true));
  const auto requests = http_.requests();
  ASSERT_EQ(requests.size(), 1u);  // the PUT routed to the session
  EXPECT_EQ(requests[0].body, R"({"full_device":true})");
  EXPECT_TRUE(running());  // and stays so, the end-to-end tests show

  // Only video samples reach the frame source, and finishing stops the loop.
  controller_->processSampleBuffer(sampleOf(10), platform::kSampleBufferTypeAudioApp);
  controller_->processSampleBuffer(sampleOf(10), platform::kSampleBufferTypeAudioMic);
  EXPECT_FALSE(peer().frameSource()->isNewFrameAvailable());
  EXPECT_TRUE(log_.lines().empty());  // the source would have said "ignoring non-video sample"
  controller_->processSampleBuffer(sampleOf(10), platform::kSampleBufferTypeVideo);
  EXPECT_TRUE(peer().frameSource()->isNewFrameAvailable());
  controller_->broadcastFinished();
  EXPECT_FALSE(running());
}

TEST_F(ZephloReplayKitExtensionTest, FullDeviceTransportFailureEndsAtOnceWithTheTransportError) {
  testing::RefusingPort refusing;
  store(refusing.url(), kZPHApiKey);
  store("S1", kZPHSessionStorageKey);
  create();
  ASSERT_TRUE(queue().runUntil([&] { return !finishes_.empty(); }));
  EXPECT_EQ(finishes_[0].domain, kURLLoadingErrorDomain);
  EXPECT_FALSE(finishes_[0].description.empty());
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ZephloReplayKitExtensionTest, FullDeviceSwitchedOffEndsEachTimeAndOnlyLeavingActiveStopsTheLoop) {
  startWithReply(200, sessionJson("active", true));
  ASSERT_TRUE(running());
  ASSERT_FALSE(peer().session()->updateResource(session("active", false)));
  EXPECT_TRUE(running());
  advance(100ms);
  peer().session()->updateResource(session("active", false));  // a finish of its own
  EXPECT_EQ(log_.lines(), Lines(2, "Full device mode switched off"));
  advance(100ms);
  EXPECT_EQ(finishes_, std::vector<Error>{ZPHError("Full device mode switched off", 400)});
  advance(100ms);
  EXPECT_EQ(finishes_.size(), 2u);
  EXPECT_TRUE(running());

  // Leaving the active state stops the loop and coming back starts it.
  for (const char* state : {"pending", "authorizing", "unknown"}) {
    peer().session()->updateResource(session("active", true));
    ASSERT_TRUE(running());
    peer().session()->updateResource(session(state, true));
    EXPECT_FALSE(running()) << state;
  }
  controller_->broadcastResumed();  // starts the loop whatever the session's state
  EXPECT_TRUE(running());
  advance(1s);
  EXPECT_EQ(finishes_.size(), 2u);
}

}  // namespace
}  // namespace zephlo
