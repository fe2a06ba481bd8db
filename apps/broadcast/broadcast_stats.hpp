// BroadcastStats: the once-a-second status line of `zephlo-broadcast --stats`:
// frames handed to the stream socket and frames refused by its gate so far, the
// socket's message lag, the JPEG quality it implies and the JPEG bytes the socket
// wrote in the last second.
//
// It counts what happened, as an observer of the stream protocol's frame
// transmission; it never re-runs the rules or encodes a frame itself.
//
// Owned by the broadcast host through shared_ptr (the stream protocol holds it as
// an observer; it holds the stream protocol weakly). Main queue only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/stream/stream_protocol.hpp"

namespace zephlo {

class BroadcastStats : public FrameTransmissionObserver {
 public:
  using LineWriter = std::function<void(const std::string& line)>;

  // Watches `stream` (which may be null: nothing is ever sent then).
  static std::shared_ptr<BroadcastStats> attach(const std::shared_ptr<ZPHStreamProtocol>& stream);

  // Writes a line every second through `writer` until `stop`.
  void startReporting(LineWriter writer);
  void stop();

  // The status line for now; starts a new one-second byte count.
  std::string line();

  std::uint64_t sent() const { return sent_; }
  std::uint64_t dropped() const { return dropped_; }

  void frameRefused(GateVerdict) override { ++dropped_; }
  void frameHandedToSocket(std::size_t) override { ++sent_; }
  void frameWriteDone(std::size_t jpegBytes, bool written) override {
    if (written) bytes_ += jpegBytes;
  }

 private:
  // Weak: the stream protocol holds this object as its observer.
  std::weak_ptr<ZPHStreamProtocol> stream_;
  std::uint64_t sent_ = 0;
  std::uint64_t dropped_ = 0;
  std::uint64_t bytes_ = 0;
  std::unique_ptr<platform::RepeatingTimer> timer_;
};

}  // namespace zephlo
