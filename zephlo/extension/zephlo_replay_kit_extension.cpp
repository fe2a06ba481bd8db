#include "zephlo/extension/zephlo_replay_kit_extension.hpp"

#include <utility>

#include "zephlo/core/device.hpp"
#include "zephlo/core/keychain.hpp"
#include "zephlo/core/request.hpp"
#include "zephlo/core/rest_resource.hpp"
#include "zephlo/core/device_info.hpp"
#include "zephlo/platform/log.hpp"
#include "zephlo/platform/sequence_checker.hpp"

namespace zephlo {

// Stands in for the controller in the observer sets of the session and the
// stream protocol, which hold their observers strongly: holding the controller
// weakly here keeps the controller -> session -> observer path from closing a
// cycle. Calls after the controller has gone do nothing.
class ZephloReplayKitExtension::ObserverForwarder final : public ZPHSessionObserver,
                                                          public ZPHStreamProtocolObserver {
 public:
  explicit ObserverForwarder(std::weak_ptr<ZephloReplayKitExtension> controller)
      : controller_(std::move(controller)) {}

  void sessionDidUpdate(const std::shared_ptr<ZPHSession>& session) override {
    if (auto controller = controller_.lock()) controller->sessionDidUpdate(session);
  }
  void sessionDidEnd(const std::shared_ptr<ZPHSession>& session) override {
    if (auto controller = controller_.lock()) controller->sessionDidEnd(session);
  }
  void onAgentEvent(const std::shared_ptr<ZPHSession>& session, const ZPHAgentEvent& event) override {
    if (auto controller = controller_.lock()) controller->onAgentEvent(session, event);
  }
  void onSyncRequest(const std::shared_ptr<ZPHSession>& session) override {
    if (auto controller = controller_.lock()) controller->onSyncRequest(session);
  }

 private:
  std::weak_ptr<ZephloReplayKitExtension> controller_;
};

ZephloReplayKitExtension::ZephloReplayKitExtension(PrivateTag) {}

std::shared_ptr<ZephloReplayKitExtension> ZephloReplayKitExtension::init() {
  auto controller = std::make_shared<ZephloReplayKitExtension>(PrivateTag{});
  controller->start();
  return controller;
}

std::shared_ptr<ZephloReplayKitExtension> ZephloReplayKitExtension::initWithSetupInfo(const ValueMap&) {
  return init();
}

ZephloReplayKitExtension::~ZephloReplayKitExtension() {
  // The owner of the loop, the sockets and the session ends them with itself, so
  // no tick, reconnect or observer outlives the controller.
  if (frameLoop_) frameLoop_->stop();
  if (stream_) stream_->close();
  if (session_) session_->cleanup();
}

void ZephloReplayKitExtension::start() {
  frameLoop_ = ZPHFrameLoop::create(weak_from_this());
  frameSource_ = std::make_shared<ZPHReplayKitFrameSource>();
  frameLoop_->setSource(frameSource_);
  loadStorage();
}

void ZephloReplayKitExtension::loadStorage() {
  auto api = ZPHKeychain::getValue(kZPHApiKey, ZPHKeychain::sharedGroup());
  if (!api) {
    triggerFinish("API missing");
    return;
  }
  ZPHRESTResource::setBaseUrl(*api);
  ZPHRequest::setHeaders({
      {"X-ZephloPlatform", "ios"},
      {"X-ZephloSDKVersion", std::string(kZephloVersionString)},
      {"X-ZephloDevice", ZPHDevice::instance()->id().value_or("")},
  });
  loadSession(ZPHKeychain::getValue(kZPHSessionStorageKey, ZPHKeychain::sharedGroup()));
}

void ZephloReplayKitExtension::loadSession(const std::optional<std::string>& identifier) {
  if (!identifier) {
    triggerFinish("No session available");
    return;
  }
  session_ = ZPHSession::initWithResource(ValueMap{{"id", Value(*identifier)}});
  forwarder_ = std::make_shared<ObserverForwarder>(weak_from_this());
  session_->registerSessionObserver(forwarder_);
  session_->fullDevice(true, [weak = weak_from_this(), finish = finisher()](OptionalError error,
                                                                          std::shared_ptr<ZPHSession> session) {
    // A transport failure arrives on the HTTP thread: finish without taking a
    // reference to the controller there, or that thread could become its last
    // owner and tear it down off the main queue.
    if (error) return finish(*error);
    if (auto controller = weak.lock()) controller->fullDeviceDidReply(error, session);
  });
  stream_ = ZPHStreamProtocol::create(session_);
  stream_->registerStreamProtocolObserver(forwarder_);
}

void ZephloReplayKitExtension::fullDeviceDidReply(const OptionalError& error,
                                                  const std::shared_ptr<ZPHSession>& session) {
  // A transport failure calls back on the HTTP thread; finishBroadcastWithError
  // is the one thing done there, and it is safe from any thread.
  if (error) {
    finishBroadcastWithError(*error);
    return;
  }
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!session) {
    triggerFinish("Zephlo session wasn't found");
  } else if (!session->isActive()) {
    triggerFinish("Zephlo session wasn't activated yet");
  }
}

void ZephloReplayKitExtension::triggerFinish(const std::string& message) {
  platform::log(message);
  platform::after(kFinishDelay, [self = shared_from_this(), message] {
    self->finishBroadcastWithError(ZPHError(message, kFinishErrorCode));
  });
}

void ZephloReplayKitExtension::broadcastPaused() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  platform::log("Broadcast paused");
  frameLoop_->stop();
}

void ZephloReplayKitExtension::broadcastResumed() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  platform::log("Broadcast resumed");
  frameLoop_->start();
}

void ZephloReplayKitExtension::broadcastFinished() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  platform::log("Broadcast finished");
  frameLoop_->stop();
}

void ZephloReplayKitExtension::processSampleBuffer(const platform::SampleBuffer& sample, std::int64_t withType) {
  if (withType != platform::kSampleBufferTypeVideo) return;
  frameSource_->processSampleBuffer(sample, withType);
}

void ZephloReplayKitExtension::sessionDidUpdate(const std::shared_ptr<ZPHSession>& session) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (session->isActive()) {
    if (session->fullDevice()) {
      frameLoop_->start();
    } else {
      // The loop keeps running until the broadcast ends.
      triggerFinish("Full device mode switched off");
    }
  } else {
    frameLoop_->stop();
  }
}

void ZephloReplayKitExtension::sessionDidEnd(const std::shared_ptr<ZPHSession>&) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  frameLoop_->stop();
  ZPHKeychain::clearKey(kZPHSessionStorageKey, ZPHKeychain::sharedGroup());
  triggerFinish("Session ended");
}

void ZephloReplayKitExtension::onSyncRequest(const std::shared_ptr<ZPHSession>&) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  frameLoop_->invalidateFrame();
}

void ZephloReplayKitExtension::onAgentEvent(const std::shared_ptr<ZPHSession>&, const ZPHAgentEvent&) {}

double ZephloReplayKitExtension::scale() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!session_) return 0;
  return session_->scale();
}

bool ZephloReplayKitExtension::shouldCaptureFrame() { return true; }

void ZephloReplayKitExtension::handleFrame(FrameImage image, std::function<void(bool)> callback) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!stream_) return;
  stream_->sendFrame(std::move(image), std::move(callback));
}

}  // namespace zephlo
