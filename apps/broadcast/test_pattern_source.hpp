// TestPatternSource: a synthetic phone screen. A status bar with the time, a
// large clock, cards of text rows, colour gradients and a progress bar that moves
// each second. The clock and the bar change once a second and nothing changes in
// between; like the phone, the source still hands over a sample at every tick of
// the sample rate, the same buffer again until the next second.
//
// The picture of a second is drawn once, into a buffer from a small pool, so no
// sample allocates. Owned by the broadcast host; samples are made on its
// ticker's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "apps/broadcast/pixel_buffer_pool.hpp"
#include "apps/broadcast/sample_ticker.hpp"
#include "apps/broadcast/screen_source.hpp"

namespace zephlo {

class TestPatternSource : public ScreenSource {
 public:
  // Samples of `width` x `height` pixels in `format`, with `orientation`
  // attached, `sampleRate` a second; the clock starts at `clockStart` seconds
  // into the day.
  TestPatternSource(platform::PixelFormat format, int width, int height, std::int64_t orientation,
                    std::int64_t clockStart, double sampleRate);

  void start(Sink sink, EndHandler ended) override;
  void stop() override;

  // The sample of the tick at `sinceStart`.
  std::optional<platform::SampleBuffer> sampleAt(platform::Duration sinceStart);

  // Draws the screen as it looks at `clockSeconds` into the day.
  static void draw(platform::PixelBuffer& buffer, std::int64_t clockSeconds);

  const PixelBufferPool& pool() const { return pool_; }

 private:
  PixelBufferPool pool_;
  std::int64_t orientation_;
  std::int64_t clockStart_;
  std::optional<std::int64_t> shownSecond_;
  std::shared_ptr<const platform::PixelBuffer> shown_;
  SampleTicker ticker_;
};

}  // namespace zephlo
