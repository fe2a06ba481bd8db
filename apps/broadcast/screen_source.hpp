// ScreenSource: where zephlo-broadcast's screen samples come from. The capture
// thread asks it for a sample at every tick of the sample rate; a source answers
// with the screen as it is now, or with nothing when it has nothing new to
// deliver (an unchanged X11 screen).
//
// Owned by the broadcast host; called on the capture thread only, from `start`
// of the capture thread until its `stop` returns.
#pragma once

#include <optional>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/platform/sample_buffer.hpp"

namespace zephlo {

class ScreenSource {
 public:
  virtual ~ScreenSource() = default;
  // The sample to deliver at `sinceStart` into the broadcast, or nothing.
  virtual std::optional<platform::SampleBuffer> sampleAt(platform::Duration sinceStart) = 0;
};

}  // namespace zephlo
