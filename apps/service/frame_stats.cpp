#include "apps/service/frame_stats.hpp"

#include <chrono>

#include "zephlo/platform/sequence_checker.hpp"

namespace zephlo::service {

namespace {
double seconds(platform::Duration d) { return std::chrono::duration<double>(d).count(); }
}  // namespace

void FrameStats::record(Frame frame, platform::Duration now) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  const std::size_t size = frame.jpeg ? frame.jpeg->size() : 0;
  if (latest_ && frame.id > latest_->id + 1) missing_ += frame.id - latest_->id - 1;
  if (frames_ == 0) first_ = now;
  ++frames_;
  bytes_ += size;
  frame.receivedAt = now;
  latest_ = std::move(frame);
  window_.push_back({now, size});
  prune(now);
}

void FrameStats::prune(platform::Duration now) const {
  while (!window_.empty() && window_.front().at <= now - kRateWindow) window_.pop_front();
}

double FrameStats::framesPerSecond(platform::Duration now) const {
  prune(now);
  return static_cast<double>(window_.size()) / seconds(kRateWindow);
}

double FrameStats::bytesPerSecond(platform::Duration now) const {
  prune(now);
  std::size_t sum = 0;
  for (const Arrival& a : window_) sum += a.bytes;
  return static_cast<double>(sum) / seconds(kRateWindow);
}

double FrameStats::meanFramesPerSecond() const {
  if (frames_ < 2 || !latest_) return 0;
  const double span = seconds(latest_->receivedAt - first_);
  return span > 0 ? static_cast<double>(frames_ - 1) / span : 0;
}

ValueMap FrameStats::toMap(platform::Duration now) const {
  ValueMap m{
      {"frames", frames_},
      {"bytes", bytes_},
      {"missing_ids", missing_},
      {"fps", framesPerSecond(now)},
      {"bytes_per_second", bytesPerSecond(now)},
      {"mean_fps", meanFramesPerSecond()},
      {"mean_frame_bytes", frames_ ? static_cast<double>(bytes_) / static_cast<double>(frames_) : 0.0},
  };
  if (latest_) {
    m.set("last_frame_id", latest_->id);
    m.set("last_frame_bytes", static_cast<std::uint64_t>(latest_->jpeg ? latest_->jpeg->size() : 0));
    m.set("last_quality", latest_->quality ? Value(*latest_->quality) : Value());
    m.set("last_timestamp", latest_->timestamp);
    m.set("last_frame_age_ms",
          std::chrono::duration_cast<std::chrono::milliseconds>(now - latest_->receivedAt).count());
  }
  return m;
}

}  // namespace zephlo::service
