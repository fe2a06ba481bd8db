// SampleTicker: the thread of a source that is asked for a sample at every tick
// of the sample rate (the synthetic sources, and the X11 screen where it cannot
// say when it changes). At every tick it polls for a sample and, when there is
// one, hands it to the sink. Ticks are paced on the steady clock from the start,
// so a slow tick does not shift the ones after it; ticks that fall behind are
// skipped.
//
// Owned by its screen source (declared last, so that it stops before the rest of
// the source goes). `start` and `stop` are called on the main thread; the poll
// and the sink run on the ticker's thread. Destroying it stops it.
//
// THREADING: the thread is told to stop through a flag under a mutex and a
// condition variable, the only state the two threads share.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "apps/broadcast/screen_source.hpp"
#include "zephlo/platform/main_queue.hpp"

namespace zephlo {

class SampleTicker {
 public:
  // The sample to deliver at `sinceStart` into the broadcast, or nothing.
  using Poll = std::function<std::optional<platform::SampleBuffer>(platform::Duration sinceStart)>;

  explicit SampleTicker(double sampleRate);
  ~SampleTicker();
  SampleTicker(const SampleTicker&) = delete;
  SampleTicker& operator=(const SampleTicker&) = delete;

  // Starts ticking; a second start while running changes nothing.
  void start(Poll poll, ScreenSource::Sink sink);
  // Returns once the thread has ended; nothing is polled or delivered after it.
  void stop();

 private:
  void run();

  std::chrono::nanoseconds interval_;
  Poll poll_;
  ScreenSource::Sink sink_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace zephlo
