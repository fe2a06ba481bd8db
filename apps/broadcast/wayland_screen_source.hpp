// WaylandScreenSource: the screen of a Wayland desktop, shared through the
// desktop's screen-sharing portal (which asks the user the first time and shows
// its indicator while sharing) and read as a PipeWire video stream. Samples come
// only when the screen changes. The broadcast ends when the user stops sharing
// from the desktop, the stream or PipeWire goes away, or the portal leaves.
//
// The token that lets the next broadcast skip the dialog is kept in a file
// beside the keychain database.
//
// Owned by the broadcast host; `open`, `start`, `stop` and the destructor run on
// the main thread, the sink and the end handler on the PipeWire thread (the end
// handler also on the portal's watcher thread, still at most once).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "apps/broadcast/restore_token_file.hpp"
#include "apps/broadcast/screen_source.hpp"

namespace zephlo {

class PipeWireStream;
class ScreenCastPortal;

class WaylandScreenSource : public ScreenSource {
 public:
  // Why `open` gave nothing: the user said no, or it could not be done.
  enum class Refusal { None, Cancelled, Failed };

  // Asks the portal for one screen (showing the desktop's dialog unless
  // `tokens` holds a choice it remembers), saves the new token and connects to
  // the stream. Null with `error` (one line) and `refusal` set otherwise.
  // `busAddress` empty: the session bus.
  static std::unique_ptr<WaylandScreenSource> open(const RestoreTokenFile& tokens, platform::PixelFormat format,
                                                   std::int64_t orientation, std::string* error,
                                                   Refusal* refusal = nullptr, const std::string& busAddress = "");
  ~WaylandScreenSource() override;
  WaylandScreenSource(const WaylandScreenSource&) = delete;
  WaylandScreenSource& operator=(const WaylandScreenSource&) = delete;

  void start(Sink sink, EndHandler ended) override;
  void stop() override;
  std::optional<int> desktopScale() const override { return scale_; }

 private:
  WaylandScreenSource() = default;
  void deliver(const platform::SampleBuffer& sample);
  void end(const std::string& why);

  std::unique_ptr<ScreenCastPortal> portal_;
  std::unique_ptr<PipeWireStream> stream_;
  std::optional<int> scale_;
  std::mutex mutex_;
  Sink sink_;
  EndHandler ended_;
  // A picture, or the end, that came before `start`.
  std::optional<platform::SampleBuffer> held_;
  std::optional<std::string> endedWhy_;
  bool stopped_ = false;
};

}  // namespace zephlo
