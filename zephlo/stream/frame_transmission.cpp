#include "zephlo/stream/frame_transmission.hpp"

#include <utility>

#include "zephlo/base/wire_names.hpp"

namespace zephlo {

namespace {

// Only the main queue touches it.
std::uint32_t gFrameCounter = 0;

}  // namespace

float frameQuality(std::uint64_t messageLag) {
  if (messageLag < 2) return 0.6f;
  if (messageLag < 3) return 0.5f;
  if (messageLag < 4) return 0.4f;
  if (messageLag < kCongestionLag) return 0.3f;
  return 0.2f;
}

GateVerdict gate(const FrameChannel* channel, std::string_view event) {
  if (!channel || !channel->isConneced()) return GateVerdict::NotConnected;
  if (event == wire::kFrameEvent && channel->messageLag() >= kCongestionLag) return GateVerdict::Congested;
  return GateVerdict::Send;
}

std::uint32_t nextFrameId() { return gFrameCounter++; }

ValueMap framePayload(std::uint32_t id, SharedBytes jpeg, std::string timestamp) {
  return ValueMap{{wire::kType, wire::kFrameType},
                  {wire::kId, static_cast<std::uint64_t>(id)},
                  {wire::kImage, Value(std::move(jpeg))},
                  {wire::kTimestamp, std::move(timestamp)},
                  {wire::kMimeType, wire::kJpegMimeType}};
}

}  // namespace zephlo
