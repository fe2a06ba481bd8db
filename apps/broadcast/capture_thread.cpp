#include "apps/broadcast/capture_thread.hpp"

#include <algorithm>

namespace zephlo {

CaptureThread::CaptureThread(std::unique_ptr<ScreenSource> source, double sampleRate, Sink sink)
    : source_(std::move(source)),
      interval_(std::chrono::nanoseconds(static_cast<std::int64_t>(1e9 / std::max(sampleRate, 0.001)))),
      sink_(std::move(sink)) {}

CaptureThread::~CaptureThread() { stop(); }

void CaptureThread::start() {
  if (thread_.joinable()) return;
  stopping_ = false;
  thread_ = std::thread([this] { run(); });
}

void CaptureThread::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void CaptureThread::run() {
  const auto begin = std::chrono::steady_clock::now();
  auto next = begin;
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    lock.unlock();
    const auto now = std::chrono::steady_clock::now();
    if (auto sample = source_->sampleAt(now - begin)) sink_(*sample);
    // The next tick on the grid that is still ahead.
    next += interval_;
    const auto after = std::chrono::steady_clock::now();
    if (next <= after) next += ((after - next) / interval_ + 1) * interval_;
    lock.lock();
    wake_.wait_until(lock, next, [this] { return stopping_; });
  }
}

}  // namespace zephlo
