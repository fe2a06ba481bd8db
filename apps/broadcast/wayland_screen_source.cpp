#include "apps/broadcast/wayland_screen_source.hpp"

#include <unistd.h>

#include <cmath>
#include <utility>

#include "apps/broadcast/pipewire_stream.hpp"
#include "apps/broadcast/screen_cast_portal.hpp"

namespace zephlo {

std::unique_ptr<WaylandScreenSource> WaylandScreenSource::open(const RestoreTokenFile& tokens,
                                                               platform::PixelFormat format, std::int64_t orientation,
                                                               std::string* error, Refusal* refusal,
                                                               const std::string& busAddress) {
  Refusal ignored;
  if (!refusal) refusal = &ignored;
  *refusal = Refusal::Failed;
  auto portal = ScreenCastPortal::connect(error, busAddress);
  if (!portal) return nullptr;
  auto started = portal->start(tokens.load());
  if (started.outcome != ScreenCastPortal::Outcome::Started) {
    *refusal = started.outcome == ScreenCastPortal::Outcome::Cancelled ? Refusal::Cancelled : Refusal::Failed;
    *error = started.message;
    return nullptr;
  }
  // Tokens are good for one use: the one handed back now replaces the old one.
  tokens.save(started.restoreToken);

  std::unique_ptr<WaylandScreenSource> source(new WaylandScreenSource());
  source->portal_ = std::move(portal);
  source->stream_ = PipeWireStream::open(started.pipewireFd, started.nodeId, format, orientation, error);
  if (!source->stream_) return nullptr;
  // Connected now rather than at `start`, so that the scale is known from the
  // first picture's size; a picture that comes before `start` is kept for it.
  auto* self = source.get();
  source->stream_->start([self](const platform::SampleBuffer& sample) { self->deliver(sample); },
                         [self](const std::string& why) { self->end(why); });
  source->portal_->watch([self](const std::string& why) { self->end(why); });
  if (auto size = source->stream_->waitForSize(std::chrono::seconds(2)); size && started.logicalWidth > 0) {
    source->scale_ = std::max(1, static_cast<int>(std::lround(double(size->first) / started.logicalWidth)));
  }
  *refusal = Refusal::None;
  return source;
}

WaylandScreenSource::~WaylandScreenSource() { stop(); }

void WaylandScreenSource::start(Sink sink, EndHandler ended) {
  std::lock_guard lock(mutex_);
  sink_ = std::move(sink);
  ended_ = std::move(ended);
  if (held_) sink_(*std::exchange(held_, std::nullopt));
  if (endedWhy_ && ended_) std::exchange(ended_, nullptr)(*endedWhy_);
}

void WaylandScreenSource::stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopped_) return;
    stopped_ = true;
  }
  // Both threads are joined here; the session's end takes the indicator away.
  if (stream_) stream_->stop();
  if (portal_) portal_->close();
}

void WaylandScreenSource::deliver(const platform::SampleBuffer& sample) {
  std::lock_guard lock(mutex_);
  if (stopped_) return;
  if (sink_) {
    sink_(sample);
  } else {
    held_ = sample;
  }
}

void WaylandScreenSource::end(const std::string& why) {
  std::lock_guard lock(mutex_);
  if (stopped_ || endedWhy_) return;
  endedWhy_ = why;
  if (ended_) std::exchange(ended_, nullptr)(why);
}

}  // namespace zephlo
