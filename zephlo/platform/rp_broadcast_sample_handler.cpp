#include "zephlo/platform/rp_broadcast_sample_handler.hpp"

#include "zephlo/platform/main_queue.hpp"

namespace zephlo::platform {

RPBroadcastSampleHandler::RPBroadcastSampleHandler() : finishSlot_(std::make_shared<FinishSlot>()) {}

RPBroadcastSampleHandler::~RPBroadcastSampleHandler() = default;

void RPBroadcastSampleHandler::broadcastStarted(const ValueMap&) {}
void RPBroadcastSampleHandler::broadcastPaused() {}
void RPBroadcastSampleHandler::broadcastResumed() {}
void RPBroadcastSampleHandler::broadcastFinished() {}
void RPBroadcastSampleHandler::processSampleBuffer(const SampleBuffer&, std::int64_t) {}

void RPBroadcastSampleHandler::finishBroadcastWithError(const Error& error) { finisher()(error); }

std::function<void(const Error&)> RPBroadcastSampleHandler::finisher() const {
  // Always through the queue, also from the main queue itself: the handler then
  // runs after the caller's own step has returned, the same on every thread.
  return [slot = finishSlot_](const Error& error) {
    MainQueue::shared().async([slot, error] {
      if (slot->handler) slot->handler(error);
    });
  };
}

void RPBroadcastSampleHandler::setFinishHandler(FinishHandler handler) {
  finishSlot_->handler = std::move(handler);
}

}  // namespace zephlo::platform
