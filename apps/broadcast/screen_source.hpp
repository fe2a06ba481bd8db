// ScreenSource: where zephlo-broadcast's screen samples come from. A source is
// started with a sink and delivers samples on a thread of its own when it has
// them, until it is stopped: the synthetic sources at every tick of the sample
// rate, as the phone delivers them; a real screen when it has changed.
//
// Owned by the broadcast host; `start`, `stop` and the destructor are called on
// the main thread, the sink and the end handler on the source's thread.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "zephlo/platform/sample_buffer.hpp"

namespace zephlo {

class ScreenSource {
 public:
  using Sink = std::function<void(const platform::SampleBuffer& sample)>;
  // Called at most once, on the source's thread, when the source can deliver
  // nothing more of its own accord (the user stopped sharing, the stream or the
  // display went away); `why` is one line for the user.
  using EndHandler = std::function<void(const std::string& why)>;

  virtual ~ScreenSource() = default;
  // Starts delivering. Called once, on the main thread.
  virtual void start(Sink sink, EndHandler ended) = 0;
  // Returns only when no sample can be delivered any more (and `ended` will
  // not be called any more). Idempotent; called on the main thread; the
  // destructor stops too.
  virtual void stop() = 0;
  // The desktop's own pixel scale for a real screen (Xft.dpi / 96 rounded on
  // X11, the output's scale on Wayland); nothing for synthetic sources.
  virtual std::optional<int> desktopScale() const { return std::nullopt; }
};

}  // namespace zephlo
