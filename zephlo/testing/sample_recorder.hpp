// SampleRecorder: what a screen source or stream delivers (copies of its samples
// and the reasons it ended), for a test's thread to wait on. Fed on the source's
// own thread, read on any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zephlo/platform/sample_buffer.hpp"

namespace zephlo::testing {

class SampleRecorder {
 public:
  // Starts `source` (anything with start(sampleHandler, endHandler)) delivering here.
  template <class Source>
  void listenTo(Source& source) {
    source.start(sink(), [this](const std::string& why) {
      std::lock_guard lock(mutex_);
      ended_.push_back(why);
      changed_.notify_all();
    });
  }
  // Keeps a copy of each sample: a source may draw into a buffer again once a
  // newer sample is out. Like a frame source, it holds the newest sample itself
  // and lets the older go.
  std::function<void(const platform::SampleBuffer&)> sink() {
    return [this](const platform::SampleBuffer& sample) {
      const auto& in = *sample.imageBuffer();
      auto copy = platform::PixelBuffer::create(in.format(), in.width(), in.height());
      for (int p = 0; p < in.planeCount(); ++p) {
        std::memcpy(copy->mutablePlane(p), in.plane(p), static_cast<std::size_t>(in.stride(p)) * in.planeHeight(p));
      }
      std::lock_guard lock(mutex_);
      newest_ = sample;
      samples_.emplace_back(std::move(copy), sample.orientationAttachment());
      changed_.notify_all();
    };
  }

  // The `n`th sample (from 1), once it has arrived; nothing after `limit`.
  std::optional<platform::SampleBuffer> waitForSample(std::size_t n,
                                                      std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return samples_.size() >= n; })) return std::nullopt;
    return samples_[n - 1];
  }
  // The first sample from the `n`th on that `matches`; nothing when none did
  // within `limit` (a source that keeps delivering the wrong picture included).
  std::optional<platform::SampleBuffer> waitForSampleThat(
      std::size_t n, const std::function<bool(const platform::SampleBuffer&)>& matches,
      std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (auto sample = waitForSample(n, limit); sample;) {
      if (matches(*sample)) return sample;
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      sample = waitForSample(++n, left);
    }
    return std::nullopt;
  }
  // The first reason the source gave for ending; nothing after `limit`.
  std::optional<std::string> waitForEnd(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return !ended_.empty(); })) return std::nullopt;
    return ended_.front();
  }
  std::size_t sampleCount() {
    std::lock_guard lock(mutex_);
    return samples_.size();
  }
  std::size_t endCount() {
    std::lock_guard lock(mutex_);
    return ended_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<platform::SampleBuffer> samples_;
  std::vector<std::string> ended_;
  platform::SampleBuffer newest_;
};

}  // namespace zephlo::testing
