#include "zephlo/extension/zephlo_replay_kit_extension.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "zephlo/core/device.hpp"
#include "zephlo/core/keychain.hpp"
#include "zephlo/core/request.hpp"
#include "zephlo/core/rest_resource.hpp"
#include "zephlo/extension/device_info.hpp"
#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/keychain_store.hpp"
#include "zephlo/platform/screen.hpp"
#include "zephlo/testing/refusing_port.hpp"
#include "zephlo/testing/http_test_server.hpp"
#include "zephlo/testing/log_capture.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"
#include "zephlo/testing/web_socket_test_server.hpp"

namespace zephlo {

// Reaches the controller's private steps and parts, for the cases whose inputs
// the real service cannot produce and for looking at the frame source.
class ZephloReplayKitExtensionTestPeer {
 public:
  explicit ZephloReplayKitExtensionTestPeer(ZephloReplayKitExtension& controller) : c_(controller) {}
  const std::shared_ptr<ZPHSession>& session() { return c_.session_; }
  const std::shared_ptr<ZPHReplayKitFrameSource>& frameSource() { return c_.frameSource_; }
  void fullDeviceDidReply(const OptionalError& error, const std::shared_ptr<ZPHSession>& session) {
    c_.fullDeviceDidReply(error, session);
  }

 private:
  ZephloReplayKitExtension& c_;
};

namespace {

using namespace std::chrono_literals;
using testing::HttpTestServer;
using testing::WebSocketTestServer;

constexpr char kSessionId[] = "S1";
constexpr char kSessionPath[] = "/api/1/sessions/S1";

std::string sessionJson(const std::string& state, bool fullDevice, const std::string& extra = "") {
  return std::string(R"({"type":"Session","id":"S1","state":")") + state + R"(","full_device":)" +
         (fullDevice ? "true" : "false") + extra + "}";
}

Value session(const std::string& state, bool fullDevice) {
  return Value(ValueMap{{"type", "Session"}, {"id", kSessionId}, {"state", Value(state)},
                        {"full_device", fullDevice}});
}

platform::SampleBuffer sampleOf(std::uint8_t shade) {
  auto buffer = platform::PixelBuffer::create(platform::PixelFormat::BGRA, 200, 400);
  for (int y = 0; y < 400; ++y) {
    std::fill_n(buffer->mutablePlane(0) + y * buffer->stride(0), 200 * 4, shade);
  }
  return platform::SampleBuffer(std::move(buffer), 1);
}

class CaptureCounter : public ZPHFrameLoopObserver {
 public:
  void willCaptureFrame() override { ++captures; }
  void didCaptureFrame(const FrameImage&) override {}
  int captures = 0;
};

class ZephloReplayKitExtensionTest : public testing::MainQueueTest {
 protected:
  void SetUp() override {
    MainQueueTest::SetUp();
    dir_ = std::filesystem::temp_directory_path() /
           ("zephlo-extension-test-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(dir_);
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

  void storeApi() { ZPHKeychain::setValue(http_.url(), kZPHApiKey, ZPHKeychain::sharedGroup()); }
  void storeSession() { ZPHKeychain::setValue(kSessionId, kZPHSessionStorageKey, ZPHKeychain::sharedGroup()); }
  void replyToFullDevice(HttpTestServer::Response response) {
    http_.route("PUT", kSessionPath, std::move(response));
  }

  void create() {
    controller_ = ZephloReplayKitExtension::init();
    controller_->setFinishHandler([this](const Error& error) { finishes_.push_back(error); });
  }
  // Starts with both items stored and waits for the full-device reply.
  void startWithReply(HttpTestServer::Response response) {
    storeApi();
    storeSession();
    replyToFullDevice(std::move(response));
    create();
    ASSERT_TRUE(queue().runUntil([&] { return !peer().session()->state().isNull() || !finishes_.empty(); }));
  }
  ZephloReplayKitExtensionTestPeer peer() { return ZephloReplayKitExtensionTestPeer(*controller_); }
  bool running() { return controller_->frameLoop()->isRunning(); }
  std::vector<std::string> logLines() { return log_.lines(); }

  std::filesystem::path dir_;
  testing::LogCapture log_;
  HttpTestServer http_;
  std::shared_ptr<ZephloReplayKitExtension> controller_;
  std::vector<Error> finishes_;
};

// --- Start-up from storage ---

TEST_F(ZephloReplayKitExtensionTest, MissingApiEndsWithApiMissingAfter200msAndReadsNothingMore) {
  storeSession();
  create();
  EXPECT_EQ(logLines(), std::vector<std::string>{"API missing"});
  EXPECT_EQ(ZPHRESTResource::baseUrl(), std::nullopt);
  EXPECT_EQ(http_.requestCount(), 0u);

  advance(199ms);
  EXPECT_TRUE(finishes_.empty());
  advance(1ms);
  ASSERT_EQ(finishes_.size(), 1u);
  EXPECT_EQ(finishes_[0], ZPHError("API missing", 400));
  EXPECT_EQ(logLines().size(), 1u);
}

TEST_F(ZephloReplayKitExtensionTest, MissingSessionConfiguresTheServiceLayerThenEndsWithNoSessionAvailable) {
  storeApi();
  create();
  EXPECT_EQ(ZPHRESTResource::baseUrl(), http_.url());
  auto headers = ZPHRequest::headers();
  EXPECT_EQ(headers["X-ZephloPlatform"], "ios");
  EXPECT_EQ(headers["X-ZephloSDKVersion"], kZephloVersionString);
  EXPECT_EQ(headers["X-ZephloDevice"], ZPHDevice::instance()->id().value_or("?"));
  EXPECT_EQ(logLines(), std::vector<std::string>{"No session available"});

  advance(200ms);
  ASSERT_EQ(finishes_.size(), 1u);
  EXPECT_EQ(finishes_[0], ZPHError("No session available", 400));
}

TEST_F(ZephloReplayKitExtensionTest, StartUpAsksTheServiceForFullDeviceModeWithTheDefaultHeaders) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  auto requests = http_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "PUT");
  EXPECT_EQ(requests[0].target, kSessionPath);
  EXPECT_EQ(requests[0].body, R"({"full_device":true})");
  EXPECT_EQ(requests[0].header("X-ZephloPlatform"), "ios");
  EXPECT_EQ(requests[0].header("X-ZephloDevice"), ZPHDevice::instance()->id());
}

// --- The full-device reply ---

TEST_F(ZephloReplayKitExtensionTest, ActiveFullDeviceReplyStartsTheLoopAndEndsNothing) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  EXPECT_TRUE(running());
  advance(1s);
  EXPECT_TRUE(finishes_.empty());
  EXPECT_TRUE(logLines().empty());
}

TEST_F(ZephloReplayKitExtensionTest, FailedFullDeviceRequestEndsAtOnceWithTheServicesErrorAndNoLogLine) {
  startWithReply(HttpTestServer::Response::json(422, R"({"message":"Full device mode is not allowed"})"));
  // No time passes on the manual clock: the finish is not delayed.
  ASSERT_TRUE(queue().runUntil([&] { return !finishes_.empty(); }));
  EXPECT_EQ(finishes_[0], ZPHError("Full device mode is not allowed", 422));
  EXPECT_TRUE(logLines().empty());
  EXPECT_FALSE(running());
  advance(1s);
  EXPECT_EQ(finishes_.size(), 1u);
}

TEST_F(ZephloReplayKitExtensionTest, FullDeviceTransportFailureEndsAtOnceWithTheTransportError) {
  storeSession();
  testing::RefusingPort refusing;
  const std::string closedUrl = refusing.url();
  ZPHKeychain::setValue(closedUrl, kZPHApiKey, ZPHKeychain::sharedGroup());
  create();
  ASSERT_TRUE(queue().runUntil([&] { return !finishes_.empty(); }));
  EXPECT_EQ(finishes_[0].domain, kURLLoadingErrorDomain);
  EXPECT_FALSE(finishes_[0].description.empty());
  EXPECT_TRUE(logLines().empty());
}

TEST_F(ZephloReplayKitExtensionTest, PendingReplyKeepsTheLoopStoppedAndEndsWithNotActivatedYet) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("pending", true)));
  EXPECT_FALSE(running());
  EXPECT_EQ(logLines(), std::vector<std::string>{"Zephlo session wasn't activated yet"});
  advance(199ms);
  EXPECT_TRUE(finishes_.empty());
  advance(1ms);
  ASSERT_EQ(finishes_.size(), 1u);
  EXPECT_EQ(finishes_[0], ZPHError("Zephlo session wasn't activated yet", 400));
}

TEST_F(ZephloReplayKitExtensionTest, ReplyWithoutASessionEndsWithSessionWasntFound) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  peer().fullDeviceDidReply(std::nullopt, nullptr);
  EXPECT_EQ(logLines(), std::vector<std::string>{"Zephlo session wasn't found"});
  advance(200ms);
  ASSERT_EQ(finishes_.size(), 1u);
  EXPECT_EQ(finishes_[0], ZPHError("Zephlo session wasn't found", 400));
}

TEST_F(ZephloReplayKitExtensionTest, ActiveReplyWithFullDeviceOffEndsAndNeverStartsTheLoop) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", false)));
  EXPECT_FALSE(running());
  EXPECT_EQ(logLines(), std::vector<std::string>{"Full device mode switched off"});
  advance(200ms);
  ASSERT_EQ(finishes_.size(), 1u);
  EXPECT_EQ(finishes_[0], ZPHError("Full device mode switched off", 400));
}

// --- The update and end rules ---

TEST_F(ZephloReplayKitExtensionTest, FullDeviceSwitchedOffWhileStreamingLeavesTheLoopRunning) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  ASSERT_TRUE(running());
  ASSERT_FALSE(peer().session()->updateResource(session("active", false)));
  EXPECT_TRUE(running());
  EXPECT_EQ(logLines(), std::vector<std::string>{"Full device mode switched off"});
  advance(200ms);
  EXPECT_EQ(finishes_.size(), 1u);
  EXPECT_TRUE(running());
}

TEST_F(ZephloReplayKitExtensionTest, EachFinishTriggeredEndsTheBroadcastAgain) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  peer().session()->updateResource(session("active", false));
  advance(100ms);
  peer().session()->updateResource(session("active", false));
  EXPECT_EQ(logLines().size(), 2u);
  advance(100ms);
  EXPECT_EQ(finishes_.size(), 1u);
  advance(100ms);
  EXPECT_EQ(finishes_.size(), 2u);
}

TEST_F(ZephloReplayKitExtensionTest, SessionLeavingActiveStopsTheLoopAndComingBackStartsIt) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  for (const char* state : {"pending", "authorizing", "unknown"}) {
    peer().session()->updateResource(session("active", true));
    ASSERT_TRUE(running());
    peer().session()->updateResource(session(state, true));
    EXPECT_FALSE(running()) << state;
  }
  advance(1s);
  EXPECT_TRUE(finishes_.empty());
}

TEST_F(ZephloReplayKitExtensionTest, SessionEndedStopsTheLoopClearsTheSessionItemAndEnds) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  ASSERT_TRUE(running());
  peer().session()->updateResource(session("ended", true));
  EXPECT_FALSE(running());
  EXPECT_EQ(ZPHKeychain::getValue(kZPHSessionStorageKey, ZPHKeychain::sharedGroup()), std::nullopt);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHApiKey, ZPHKeychain::sharedGroup()), http_.url());
  EXPECT_EQ(logLines(), std::vector<std::string>{"Session ended"});
  advance(200ms);
  ASSERT_EQ(finishes_.size(), 1u);
  EXPECT_EQ(finishes_[0], ZPHError("Session ended", 400));
}

// --- Samples and the broadcast's lifecycle ---

TEST_F(ZephloReplayKitExtensionTest, AudioSamplesNeverReachTheFrameSource) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  controller_->processSampleBuffer(sampleOf(10), platform::kSampleBufferTypeAudioApp);
  controller_->processSampleBuffer(sampleOf(10), platform::kSampleBufferTypeAudioMic);
  EXPECT_FALSE(peer().frameSource()->isNewFrameAvailable());
  EXPECT_TRUE(logLines().empty());  // the source would have said "ignoring non-video sample"
  controller_->processSampleBuffer(sampleOf(10), platform::kSampleBufferTypeVideo);
  EXPECT_TRUE(peer().frameSource()->isNewFrameAvailable());
}

TEST_F(ZephloReplayKitExtensionTest, PauseResumeAndFinishLogAndStopOrStartTheLoop) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  controller_->broadcastPaused();
  EXPECT_FALSE(running());
  controller_->broadcastResumed();
  EXPECT_TRUE(running());
  controller_->broadcastFinished();
  EXPECT_FALSE(running());
  EXPECT_EQ(logLines(), (std::vector<std::string>{"Broadcast paused", "Broadcast resumed", "Broadcast finished"}));
  advance(1s);
  EXPECT_TRUE(finishes_.empty());
}

TEST_F(ZephloReplayKitExtensionTest, ResumeStartsTheLoopEvenWhenTheSessionIsNotActive) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("authorizing", true)));
  ASSERT_FALSE(running());
  controller_->broadcastResumed();
  EXPECT_TRUE(running());
}

TEST_F(ZephloReplayKitExtensionTest, AfterAnEarlyEndScaleReadsZeroAndFramesGoNowhere) {
  create();  // no API item: start-up ends before a session or stream exists
  EXPECT_EQ(controller_->scale(), 0.0);
  EXPECT_TRUE(controller_->shouldCaptureFrame());
  int called = 0;
  controller_->handleFrame(platform::Bitmap::create(4, 4), [&](bool) { ++called; });
  controller_->broadcastResumed();
  EXPECT_TRUE(running());
  controller_->processSampleBuffer(sampleOf(50), platform::kSampleBufferTypeVideo);
  advance(300ms);
  EXPECT_EQ(called, 0);
  EXPECT_EQ(finishes_.size(), 1u);  // "API missing", and nothing else
}

TEST_F(ZephloReplayKitExtensionTest, ScaleIsTheSessionsScale) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true, R"(,"scale":0.25)")));
  EXPECT_DOUBLE_EQ(controller_->scale(), 0.25);
}

TEST_F(ZephloReplayKitExtensionTest, AgentEventsAreIgnored) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true)));
  controller_->onAgentEvent(peer().session(), ZPHAgentEvent(std::shared_ptr<ZPHTouchEvent>()));
  EXPECT_TRUE(running());
  EXPECT_TRUE(logLines().empty());
}

// --- Frames on the stream socket ---

class ZephloReplayKitExtensionStreamTest : public ZephloReplayKitExtensionTest {
 protected:
  ZephloReplayKitExtensionStreamTest() : streamServer_(streamOptions()) {}
  static WebSocketTestServer::Options streamOptions() {
    WebSocketTestServer::Options options;
    options.bearerToken = "stream-token";
    options.autoAcknowledge = true;
    return options;
  }
  std::string streamFields() {
    std::string url = streamServer_.url("");
    return R"(,"stream_url":")" + url + R"(","stream_token":"stream-token")";
  }
  std::size_t framesReceived() {
    std::size_t n = 0;
    for (const auto& message : streamServer_.receivedMaps()) {
      const Value event = message.get("event");
      if (event.asString() && *event.asString() == "frame") ++n;
    }
    return n;
  }

  WebSocketTestServer streamServer_;
};

TEST_F(ZephloReplayKitExtensionStreamTest, ChangedSamplesAreSentAndASyncResendsAStillScreen) {
  startWithReply(HttpTestServer::Response::json(200, sessionJson("active", true, streamFields())));
  ASSERT_TRUE(queue().runUntil([&] { return controller_->stream()->stream() && controller_->stream()->stream()->isConneced(); }));
  auto counter = std::make_shared<CaptureCounter>();
  controller_->frameLoop()->registerFrameLoopObserver(counter);

  controller_->processSampleBuffer(sampleOf(80), platform::kSampleBufferTypeVideo);
  advance(75ms);
  EXPECT_EQ(counter->captures, 1);
  ASSERT_TRUE(queue().runUntil([&] { return framesReceived() == 1 && controller_->stream()->stream()->messageLag() == 0; }));

  // A still screen: no new sample, so no tick captures anything.
  advance(750ms);
  EXPECT_EQ(counter->captures, 1);

  streamServer_.sendMap(ValueMap{{"event", "sync"}, {"data", Value(ValueMap{})}});
  ASSERT_TRUE(queue().runUntil([&] { return controller_->frameLoop()->needsUpdate(); }));
  advance(75ms);
  EXPECT_EQ(counter->captures, 2);
  ASSERT_TRUE(queue().runUntil([&] { return framesReceived() == 2; }));
}

}  // namespace
}  // namespace zephlo
