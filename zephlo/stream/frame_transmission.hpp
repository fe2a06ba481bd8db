// Frame transmission: the rules by which frames go out on the stream socket. The
// JPEG quality falls as the socket's message lag grows, a frame is refused when
// the socket is not connected or the lag has reached the congestion mark, and a
// frame is one "frame" payload with a number that runs on for the life of the
// process. The rules read the socket through FrameChannel only, so they are
// tested without one; ZPHStreamProtocol applies them to its stream socket.
//
// Pure functions apart from the frame counter; main queue.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "zephlo/base/value.hpp"

namespace zephlo {

// What the rules need to know of the stream socket.
class FrameChannel {
 public:
  virtual ~FrameChannel() = default;
  virtual bool isConneced() const = 0;
  // Messages sent and not yet acknowledged.
  virtual std::uint64_t messageLag() const = 0;
};

// At this message lag frames are refused instead of sent.
inline constexpr std::uint64_t kCongestionLag = 6;
inline constexpr std::string_view kCongestionLogLine = "Zephlo dropped frame due to network congestion";

// JPEG quality for a message lag: 0.6 below 2, then 0.5, 0.4, 0.3, and 0.2 from
// the congestion lag on.
float frameQuality(std::uint64_t messageLag);

// The gate of every event sent on the stream socket.
enum class GateVerdict {
  Send,
  NotConnected,  // no socket, or not connected: silently not sent
  Congested,     // a "frame" at the congestion lag: not sent, and logged
};
// `channel` null reads as no socket.
GateVerdict gate(const FrameChannel* channel, std::string_view event);

// The next frame number. Numbers run on across sessions and protocol objects,
// and a refused frame uses one up, so the agent's side sees the gap.
std::uint32_t nextFrameId();

// The "frame" event's data.
ValueMap framePayload(std::uint32_t id, SharedBytes jpeg, std::string timestamp);

// Watches what really happens to frames on the stream socket (for statistics):
// each frame refused by the gate, handed to the socket, and then written or not.
class FrameTransmissionObserver {
 public:
  virtual ~FrameTransmissionObserver() = default;
  virtual void frameRefused(GateVerdict verdict) = 0;
  // `jpegBytes`: the size of the image the frame carries.
  virtual void frameHandedToSocket(std::size_t jpegBytes) = 0;
  // The socket's write of that frame is over: `written` false when the
  // connection failed under it.
  virtual void frameWriteDone(std::size_t jpegBytes, bool written) = 0;
};

}  // namespace zephlo
