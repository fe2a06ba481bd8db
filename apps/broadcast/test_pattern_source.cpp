#include "apps/broadcast/test_pattern_source.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

#include "apps/broadcast/canvas.hpp"

namespace zephlo {

TestPatternSource::TestPatternSource(platform::PixelFormat format, int width, int height,
                                     std::int64_t orientation, std::int64_t clockStart, double sampleRate)
    : pool_(format, width, height), orientation_(orientation), clockStart_(clockStart), ticker_(sampleRate) {}

void TestPatternSource::start(Sink sink, EndHandler) {
  ticker_.start([this](platform::Duration sinceStart) { return sampleAt(sinceStart); }, std::move(sink));
}

void TestPatternSource::stop() { ticker_.stop(); }

std::optional<platform::SampleBuffer> TestPatternSource::sampleAt(platform::Duration sinceStart) {
  const auto second = std::chrono::duration_cast<std::chrono::seconds>(sinceStart).count();
  if (!shownSecond_ || *shownSecond_ != second) {
    // Let go of the last picture first, so that its buffer can come back from
    // the pool as soon as the frame source has moved on from it too.
    shown_.reset();
    auto buffer = pool_.acquire();
    if (!buffer) return std::nullopt;
    draw(*buffer, clockStart_ + second);
    shown_ = std::move(buffer);
    shownSecond_ = second;
  }
  return platform::SampleBuffer(shown_, orientation_);
}

void TestPatternSource::draw(platform::PixelBuffer& buffer, std::int64_t clockSeconds) {
  Canvas canvas(buffer);
  const int w = canvas.width();
  const int h = canvas.height();
  // Layout in units of a 390-point-wide phone, so any size looks alike.
  const auto u = [w](double points) { return static_cast<int>(points * w / 390.0); };
  const int dot = std::max(1, u(1.6));

  char clock[16];
  const auto t = ((clockSeconds % 86400) + 86400) % 86400;
  std::snprintf(clock, sizeof clock, "%02d:%02d:%02d", static_cast<int>(t / 3600), static_cast<int>(t / 60 % 60),
                static_cast<int>(t % 60));

  // Wallpaper, then the status bar with the time.
  canvas.verticalGradient({0, 0, w, h}, {18, 24, 64}, {96, 36, 110});
  canvas.fill({0, 0, w, u(44)}, {10, 12, 30});
  canvas.text(u(20), u(15), std::string(clock).substr(0, 5), dot, {240, 240, 240});
  canvas.fill({w - u(50), u(16), u(30), u(12)}, {120, 220, 120});

  // The large clock.
  const int bigDot = std::max(1, u(6));
  const int clockWidth = Canvas::textWidth(clock, bigDot);
  canvas.fill({0, u(70), w, u(80)}, {24, 30, 76});
  canvas.text((w - clockWidth) / 2, u(80), clock, bigDot, {255, 255, 255});

  // Cards of text rows: grey bars of word-like lengths, the same every second.
  std::uint32_t seed = 12345;
  const auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
  for (int card = 0; card < 4; ++card) {
    const int top = u(170) + card * u(120);
    canvas.fill({u(16), top, w - u(32), u(104)}, {245, 245, 250});
    canvas.fill({u(28), top + u(12), u(36), u(36)}, {static_cast<std::uint8_t>(60 + card * 45), 120, 200});
    for (int row = 0; row < 4; ++row) {
      int x = u(76);
      const int y = top + u(14) + row * u(20);
      const int end = w - u(28);
      while (true) {
        const int word = u(12 + static_cast<double>(next() % 40));
        if (x + word > end) break;
        canvas.fill({x, y, word, u(9)}, row == 0 ? Rgb{40, 40, 50} : Rgb{150, 150, 160});
        x += word + u(6);
      }
    }
  }

  // A colour gradient strip and a progress bar that moves once a second.
  const int strip = u(660);
  canvas.horizontalGradient({u(16), strip, (w - u(32)) / 2, u(40)}, {255, 60, 60}, {255, 220, 60});
  canvas.horizontalGradient({u(16) + (w - u(32)) / 2, strip, (w - u(32)) - (w - u(32)) / 2, u(40)},
                            {60, 200, 120}, {60, 120, 255});
  const int barTop = u(720);
  const int barWidth = w - u(32);
  canvas.fill({u(16), barTop, barWidth, u(10)}, {60, 60, 90});
  canvas.fill({u(16), barTop, static_cast<int>(barWidth * ((t % 60) + 1) / 60), u(10)}, {90, 200, 255});

  // The home indicator.
  canvas.fill({(w - u(134)) / 2, h - u(14), u(134), u(5)}, {230, 230, 230});
}

}  // namespace zephlo
