// BroadcastStats: the once-a-second status line of `zephlo-broadcast --stats`:
// frames sent and dropped so far, the stream socket's message lag, the JPEG
// quality it implies and the JPEG bytes sent in the last second.
//
// It watches the extension from outside without changing what it does: as a
// frame loop observer it sees each rendered frame and applies the loop's own
// rule (a frame equal to the last one handed on is not sent; a sync or a failed
// send makes the next one go out again), and it reads the stream protocol's
// gate inputs (connected, message lag) at that moment, on the main queue, where
// nothing can change them before the frame reaches the gate. A frame that will
// be sent is encoded once more at the same quality to learn its size, which is
// what --stats costs.
//
// Owned by the broadcast host through shared_ptr (the frame loop and the stream
// protocol hold it as an observer; it holds the stream protocol weakly). Main
// queue only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "zephlo/capture/frame_loop.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/stream/stream_protocol.hpp"

namespace zephlo {

class BroadcastStats : public ZPHFrameLoopObserver, public ZPHStreamProtocolObserver {
 public:
  using LineWriter = std::function<void(const std::string& line)>;

  // Watches `loop` and `stream` (which may be null: nothing is ever sent then).
  static std::shared_ptr<BroadcastStats> attach(const std::shared_ptr<ZPHFrameLoop>& loop,
                                                std::shared_ptr<ZPHStreamProtocol> stream);

  // Writes a line every second through `writer` until `stop`.
  void startReporting(LineWriter writer);
  void stop();

  // The status line for now; starts a new one-second byte count.
  std::string line();

  std::uint64_t sent() const { return sent_; }
  std::uint64_t dropped() const { return dropped_; }

  void willCaptureFrame() override {}
  void didCaptureFrame(const FrameImage& image) override;
  void onAgentEvent(const std::shared_ptr<ZPHSession>&, const ZPHAgentEvent&) override {}
  void onSyncRequest(const std::shared_ptr<ZPHSession>&) override { lastSent_.reset(); }

 private:
  // Weak: the stream protocol holds this object as its observer.
  std::weak_ptr<ZPHStreamProtocol> stream_;
  SharedBytes lastSent_;
  std::uint64_t sent_ = 0;
  std::uint64_t dropped_ = 0;
  std::uint64_t bytes_ = 0;
  std::unique_ptr<platform::RepeatingTimer> timer_;
};

}  // namespace zephlo
