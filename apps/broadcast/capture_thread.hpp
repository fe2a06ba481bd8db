// CaptureThread: the host's capture thread. At every tick of the sample rate it
// asks its screen source for a sample and, when there is one, hands it to the
// sink, the way the phone's broadcast service delivers samples on a queue of its
// own. Ticks are paced on the steady clock from the start, so a slow tick does
// not shift the ones after it; ticks that fall behind are skipped.
//
// Owned by the broadcast host. `start` and `stop` are called on the main thread;
// the source and the sink run on the capture thread. Destroying it stops it.
//
// THREADING: the thread is told to stop through a flag under a mutex and a
// condition variable, the only state the two threads share.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "apps/broadcast/screen_source.hpp"

namespace zephlo {

class CaptureThread {
 public:
  using Sink = std::function<void(const platform::SampleBuffer& sample)>;

  CaptureThread(std::unique_ptr<ScreenSource> source, double sampleRate, Sink sink);
  ~CaptureThread();
  CaptureThread(const CaptureThread&) = delete;
  CaptureThread& operator=(const CaptureThread&) = delete;

  void start();
  // Returns once the capture thread has ended; no sample is delivered after it.
  void stop();

 private:
  void run();

  std::unique_ptr<ScreenSource> source_;
  std::chrono::nanoseconds interval_;
  Sink sink_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace zephlo
