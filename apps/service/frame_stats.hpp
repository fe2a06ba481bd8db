// FrameStats: what the service has seen of one session's frames: how many, how
// big, how fast, the estimated JPEG quality of the last one, the frame ids that
// never arrived (frames the sender dropped under congestion consume ids), and the
// latest frame itself for the console.
//
// Rates are measured over the last second of arrivals; the mean rate runs from the
// first frame to the last. Times are the main queue's clock.
//
// OWNERSHIP: one per session, owned by the service hub.
// THREADING: main queue only.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo::service {

class FrameStats {
 public:
  struct Frame {
    std::uint64_t id = 0;
    SharedBytes jpeg;
    std::optional<int> quality;
    std::string timestamp;   // as the sender wrote it
    platform::Duration receivedAt{};
  };

  static constexpr platform::Duration kRateWindow = std::chrono::seconds(1);

  // Records a frame received at `now`.
  void record(Frame frame, platform::Duration now);

  std::uint64_t frames() const { return frames_; }
  std::uint64_t bytes() const { return bytes_; }
  // Ids skipped between consecutive frames.
  std::uint64_t missingIds() const { return missing_; }
  const std::optional<Frame>& latest() const { return latest_; }

  // Frames and bytes per second over the window ending at `now`.
  double framesPerSecond(platform::Duration now) const;
  double bytesPerSecond(platform::Duration now) const;
  // Frames per second from the first frame to the last; 0 before two frames.
  double meanFramesPerSecond() const;

  // The figures as a map, for the console and the stats endpoint.
  ValueMap toMap(platform::Duration now) const;

 private:
  struct Arrival {
    platform::Duration at;
    std::size_t bytes;
  };
  void prune(platform::Duration now) const;

  std::uint64_t frames_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t missing_ = 0;
  platform::Duration first_{};
  std::optional<Frame> latest_;
  mutable std::deque<Arrival> window_;
};

}  // namespace zephlo::service
