// RPBroadcastSampleHandler: the base class of a broadcast extension, as the host
// that runs the broadcast drives it. The host delivers screen samples
// (processSampleBuffer) and the broadcast's lifecycle (paused, resumed, finished);
// the extension ends the broadcast itself with finishBroadcastWithError, which
// reaches the host's finish handler with the error to show the user.
//
// Owned by the host (through the subclass's own factory). The base keeps no
// broadcast state: the overrides decide everything.
//
// Queues: processSampleBuffer arrives on the host's capture thread; the three
// lifecycle calls on whatever thread the host delivers them (zephlo-broadcast uses
// the main queue); setFinishHandler belongs to the main queue.
//
// THREADING: finishBroadcastWithError may be called from any thread (a failed
// REST call reports a transport error on the HTTP thread), so it only posts the
// error to the main queue, where the finish handler runs. The handler lives in a
// small shared slot that the posted work holds, so a finish still arrives when
// the extension has gone by then.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "zephlo/base/error.hpp"
#include "zephlo/platform/sample_buffer.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo::platform {

class RPBroadcastSampleHandler {
 public:
  using FinishHandler = std::function<void(const Error& error)>;

  RPBroadcastSampleHandler();
  virtual ~RPBroadcastSampleHandler();
  RPBroadcastSampleHandler(const RPBroadcastSampleHandler&) = delete;
  RPBroadcastSampleHandler& operator=(const RPBroadcastSampleHandler&) = delete;

  // The broadcast started with the setup info of the host's picker. Nothing here.
  virtual void broadcastStarted(const ValueMap& setupInfo);
  // The user paused, resumed or stopped the broadcast. Nothing here.
  virtual void broadcastPaused();
  virtual void broadcastResumed();
  virtual void broadcastFinished();
  // One sample of `withType` (kSampleBufferTypeVideo, ...AudioApp, ...AudioMic).
  // Capture thread. Nothing here.
  virtual void processSampleBuffer(const SampleBuffer& sample, std::int64_t withType);

  // Ends the broadcast and shows `error`'s description to the user: the host's
  // finish handler runs with it on the main queue. Any thread. Every call
  // reaches the handler; the host decides what a second finish means.
  void finishBroadcastWithError(const Error& error);
  // The same finish as a callable that holds no reference to this handler, for
  // callbacks that may run on another thread (where taking a reference could make
  // that thread the handler's last owner).
  std::function<void(const Error&)> finisher() const;

  // Where finishes go. Main queue; set before the main queue runs the work that
  // could finish the broadcast. Without a handler a finish is dropped.
  void setFinishHandler(FinishHandler handler);

 private:
  struct FinishSlot {
    FinishHandler handler;  // read and written on the main queue only
  };
  const std::shared_ptr<FinishSlot> finishSlot_;
};

}  // namespace zephlo::platform
