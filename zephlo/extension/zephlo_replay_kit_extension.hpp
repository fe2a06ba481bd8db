// ZephloReplayKitExtension: the broadcast extension's entry class. The host that
// runs the broadcast creates it and then feeds it screen samples and the
// broadcast's lifecycle. It wires the extension together: it reads the service's
// API base and the session identifier that the host application left in the
// shared keychain group, configures the service access layer, loads the session
// while switching it into full-device mode, opens the stream protocol, and runs
// the frame loop that turns the newest screen sample into frames for the agent.
// It ends the broadcast itself, with a message for the user, whenever there is
// nothing (or no longer anything) to stream.
//
// Roles: the frame loop's delegate, an observer of its session and an observer
// of its stream protocol. The pipeline reads in flow order: samples go to the
// frame source, the loop asks for frames, handleFrame passes them to the stream.
//
// OWNERSHIP: created with `init` (or `initWithSetupInfo`) and owned by the host
// for the life of the broadcast. The controller owns its session, stream
// protocol, frame loop and frame source. The loop holds the controller weakly;
// the session and the stream protocol hold their observers strongly, so the
// controller registers a small forwarder that holds it weakly instead, which
// keeps the ownership a tree. A scheduled finish holds the controller until it
// has run. When the controller goes it stops its loop, closes its stream
// protocol and cleans up its session, so nothing it started outlives it.
//
// Queues: `init` runs on the thread that creates the extension (the main queue
// in zephlo-broadcast, before it runs). processSampleBuffer runs on the capture
// thread and touches nothing but the frame source, which is set once in `init`.
// Everything else runs on the main queue: session and stream notifications, the
// frame loop's delegate calls, the scheduled finish, and the lifecycle calls
// (the host delivers pause, resume and finish there, so the loop's state is only
// ever touched on one thread). The one exception is the full-device reply when
// its request failed in transport: it arrives on the HTTP thread and does
// nothing but finishBroadcastWithError, which is safe from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zephlo/capture/frame_loop.hpp"
#include "zephlo/capture/replay_kit_frame_source.hpp"
#include "zephlo/base/error.hpp"
#include "zephlo/core/session.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/platform/rp_broadcast_sample_handler.hpp"
#include "zephlo/stream/stream_protocol.hpp"

namespace zephlo {

class ZephloReplayKitExtension : public platform::RPBroadcastSampleHandler,
                                 public ZPHSessionObserver,
                                 public ZPHStreamProtocolObserver,
                                 public ZPHFrameLoopDelegate,
                                 public std::enable_shared_from_this<ZephloReplayKitExtension> {
 public:
  // How long the user sees the end of a broadcast coming before it ends.
  static constexpr std::chrono::milliseconds kFinishDelay{200};
  // The code of the controller's own finishing errors.
  static constexpr std::int64_t kFinishErrorCode = 400;

  // Creates the controller and runs the whole start-up (storage, headers, the
  // session's full-device request, the stream protocol). Returns the controller
  // even when start-up has already decided to end the broadcast.
  static std::shared_ptr<ZephloReplayKitExtension> init();
  // The same as `init`; the setup info is not used.
  static std::shared_ptr<ZephloReplayKitExtension> initWithSetupInfo(const ValueMap& setupInfo);

  ~ZephloReplayKitExtension() override;

  // Broadcast lifecycle, main queue: a log line each, then the loop stops,
  // starts (whatever the session's state) or stops.
  void broadcastPaused() override;
  void broadcastResumed() override;
  void broadcastFinished() override;
  // Capture thread. Video samples go to the frame source; audio samples (types
  // 2 and 3) are dropped without a word.
  void processSampleBuffer(const platform::SampleBuffer& sample, std::int64_t withType) override;

  // ZPHSessionObserver, main queue. The update rule: active with full-device on
  // starts the loop; active with full-device off ends the broadcast (the loop is
  // left as it is); any other state stops the loop.
  void sessionDidUpdate(const std::shared_ptr<ZPHSession>& session) override;
  // Stops the loop, forgets the session item in the shared group, ends the
  // broadcast with "Session ended".
  void sessionDidEnd(const std::shared_ptr<ZPHSession>& session) override;

  // ZPHStreamProtocolObserver, main queue. A sync forces the next frame out
  // even on a still screen; agent input events are accepted and ignored.
  void onSyncRequest(const std::shared_ptr<ZPHSession>& session) override;
  void onAgentEvent(const std::shared_ptr<ZPHSession>& session, const ZPHAgentEvent& event) override;

  // ZPHFrameLoopDelegate, main queue. `scale` is the session's scale, 0 while
  // there is no session. handleFrame passes the frame and the loop's callback to
  // the stream protocol unchanged; with no stream protocol it does nothing at
  // all and the callback is never called.
  double scale() override;
  bool shouldCaptureFrame() override;
  void handleFrame(FrameImage image, std::function<void(bool)> callback) override;

  // Read-only views for the host's statistics (frames sent, message lag, JPEG
  // quality). The controller's behaviour does not depend on who looks.
  const std::shared_ptr<ZPHFrameLoop>& frameLoop() const { return frameLoop_; }
  const std::shared_ptr<ZPHStreamProtocol>& stream() const { return stream_; }

 private:
  friend class ZephloReplayKitExtensionTestPeer;
  class ObserverForwarder;
  struct PrivateTag {};

 public:
  explicit ZephloReplayKitExtension(PrivateTag);

 private:
  // Start-up after the base class: the frame loop with this controller as its
  // delegate, the frame source installed in it, then loadStorage.
  void start();
  // Reads the API base, configures the service layer, then loadSession with the
  // stored session identifier (present or not).
  void loadStorage();
  // Creates the session and the stream protocol and asks for full-device mode.
  void loadSession(const std::optional<std::string>& identifier);
  // The full-device reply: the request's own error ends the broadcast at once;
  // a session that is not active, or none, ends it with a message.
  void fullDeviceDidReply(const OptionalError& error, const std::shared_ptr<ZPHSession>& session);
  // Logs `message` and ends the broadcast with it 200 ms later. Every call
  // schedules a finish of its own.
  void triggerFinish(const std::string& message);

  // Owned, in this order; session and stream stay null until a session
  // identifier was found.
  std::shared_ptr<ZPHSession> session_;
  std::shared_ptr<ZPHStreamProtocol> stream_;
  std::shared_ptr<ZPHFrameLoop> frameLoop_;
  std::shared_ptr<ZPHReplayKitFrameSource> frameSource_;
  // What the session and the stream protocol hold instead of the controller.
  std::shared_ptr<ObserverForwarder> forwarder_;
};

}  // namespace zephlo
