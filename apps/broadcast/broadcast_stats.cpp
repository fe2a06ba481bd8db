#include "apps/broadcast/broadcast_stats.hpp"

#include <cstdio>

namespace zephlo {

std::shared_ptr<BroadcastStats> BroadcastStats::attach(const std::shared_ptr<ZPHStreamProtocol>& stream) {
  auto stats = std::make_shared<BroadcastStats>();
  stats->stream_ = stream;
  if (stream) stream->registerFrameTransmissionObserver(stats);
  return stats;
}

std::string BroadcastStats::line() {
  const auto stream = stream_.lock();
  const auto socket = stream ? stream->stream() : nullptr;
  const unsigned long long lag = socket ? socket->messageLag() : 0;
  const double quality = stream ? stream->imageCompression() : 0.6;
  char text[160];
  std::snprintf(text, sizeof text, "stats: sent %llu, dropped %llu, lag %llu, quality %.1f, bytes/s %llu",
                static_cast<unsigned long long>(sent_), static_cast<unsigned long long>(dropped_), lag, quality,
                static_cast<unsigned long long>(bytes_));
  bytes_ = 0;
  return text;
}

void BroadcastStats::startReporting(LineWriter writer) {
  timer_ = std::make_unique<platform::RepeatingTimer>(std::chrono::seconds(1),
                                                      [this, writer = std::move(writer)] { writer(line()); });
}

void BroadcastStats::stop() { timer_.reset(); }

}  // namespace zephlo
