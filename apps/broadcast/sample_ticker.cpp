#include "apps/broadcast/sample_ticker.hpp"

#include <algorithm>

namespace zephlo {

SampleTicker::SampleTicker(double sampleRate)
    : interval_(std::chrono::nanoseconds(static_cast<std::int64_t>(1e9 / std::max(sampleRate, 0.001)))) {}

SampleTicker::~SampleTicker() { stop(); }

void SampleTicker::start(Poll poll, ScreenSource::Sink sink) {
  if (thread_.joinable()) return;
  poll_ = std::move(poll);
  sink_ = std::move(sink);
  stopping_ = false;
  thread_ = std::thread([this] { run(); });
}

void SampleTicker::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void SampleTicker::run() {
  const auto begin = std::chrono::steady_clock::now();
  auto next = begin;
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    lock.unlock();
    const auto now = std::chrono::steady_clock::now();
    if (auto sample = poll_(now - begin)) sink_(*sample);
    // The next tick on the grid that is still ahead.
    next += interval_;
    const auto after = std::chrono::steady_clock::now();
    if (next <= after) next += ((after - next) / interval_ + 1) * interval_;
    lock.lock();
    wake_.wait_until(lock, next, [this] { return stopping_; });
  }
}

}  // namespace zephlo
