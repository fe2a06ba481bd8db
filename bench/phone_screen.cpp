#include "bench/phone_screen.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace zephlo::bench {

namespace {

class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint32_t next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return static_cast<std::uint32_t>(state_ >> 16);
  }
  int below(int n) { return static_cast<int>(next() % static_cast<std::uint32_t>(n)); }

 private:
  std::uint64_t state_;
};

struct Canvas {
  platform::PixelBuffer& buffer;

  void set(int x, int y, int r, int g, int b) {
    if (x < 0 || y < 0 || x >= buffer.width() || y >= buffer.height()) return;
    std::uint8_t* px = buffer.mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * buffer.stride(0) + 4 * x;
    px[0] = static_cast<std::uint8_t>(std::clamp(b, 0, 255));
    px[1] = static_cast<std::uint8_t>(std::clamp(g, 0, 255));
    px[2] = static_cast<std::uint8_t>(std::clamp(r, 0, 255));
    px[3] = 255;
  }
  void fill(int x0, int y0, int x1, int y1, int r, int g, int b) {
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) set(x, y, r, g, b);
  }
};

// A line of text: glyph cells of thin strokes, words separated by gaps.
void drawText(Canvas& canvas, Random& random, int x0, int y0, int x1, int glyphHeight, int shade) {
  const int glyphWidth = glyphHeight * 6 / 10;
  int x = x0;
  while (x + glyphWidth < x1) {
    if (random.below(7) == 0) {  // a space
      x += glyphWidth;
      continue;
    }
    const int strokes = 2 + random.below(3);
    for (int s = 0; s < strokes; ++s) {
      const int thickness = 1 + random.below(2);
      if (random.below(2) == 0) {  // vertical
        const int sx = x + random.below(glyphWidth - thickness);
        const int top = y0 + random.below(glyphHeight / 2);
        canvas.fill(sx, top, sx + thickness, y0 + glyphHeight - random.below(3), shade, shade, shade);
      } else {  // horizontal
        const int sy = y0 + random.below(glyphHeight - thickness);
        canvas.fill(x + random.below(3), sy, x + glyphWidth - random.below(3), sy + thickness, shade, shade, shade);
      }
    }
    x += glyphWidth + 2;
  }
}

// A photograph: soft shapes and light under sensor noise.
void drawPhoto(Canvas& canvas, Random& random, int x0, int y0, int x1, int y1, double phase) {
  for (int y = y0; y < y1; ++y) {
    for (int x = x0; x < x1; ++x) {
      const double u = static_cast<double>(x - x0) / (x1 - x0), v = static_cast<double>(y - y0) / (y1 - y0);
      const double sky = 1.0 - v;
      const double hills = std::sin(u * 9.0 + phase) * 0.08 + 0.55 > v ? 0.0 : 1.0;
      const double ripple = std::sin(u * 41.0 + v * 23.0 + phase) * std::cos(v * 37.0 - u * 13.0);
      const int noise = random.below(41) - 20;
      const int r = static_cast<int>(90 + 120 * sky * hills + 40 * ripple) + noise;
      const int g = static_cast<int>(110 + 90 * sky + 70 * (1 - hills) + 30 * ripple) + noise;
      const int b = static_cast<int>(160 + 90 * sky * hills - 60 * (1 - hills)) + noise;
      canvas.set(x, y, r, g, b);
    }
  }
}

}  // namespace

std::shared_ptr<platform::PixelBuffer> drawPhoneScreen(int width, int height) {
  auto buffer = platform::PixelBuffer::create(platform::PixelFormat::BGRA, width, height);
  if (!buffer) return nullptr;
  Canvas canvas{*buffer};
  Random random(0x5eed);
  const double sy = height / 2532.0, sx = width / 1170.0;
  auto X = [&](int v) { return static_cast<int>(v * sx); };
  auto Y = [&](int v) { return static_cast<int>(v * sy); };

  canvas.fill(0, 0, width, height, 246, 246, 248);
  // Status bar: time, signal bars.
  drawText(canvas, random, X(60), Y(40), X(260), Y(40), 20);
  for (int i = 0; i < 4; ++i) canvas.fill(X(900 + 24 * i), Y(80 - 12 * i), X(916 + 24 * i), Y(90), 20, 20, 20);
  // Header: a diagonal colour gradient with a title.
  for (int y = Y(130); y < Y(400); ++y)
    for (int x = 0; x < width; ++x)
      canvas.set(x, y, 40 + x * 160 / width, 90 + (y - Y(130)) * 100 / std::max(1, Y(270)), 200 - x * 80 / width);
  drawText(canvas, random, X(60), Y(250), X(800), Y(70), 255);
  // A photograph.
  drawPhoto(canvas, random, X(40), Y(430), width - X(40), Y(1180), 0.3);
  // List rows: icon, two lines of text, a one-pixel separator.
  for (int row = 0; row < 10; ++row) {
    const int top = Y(1220 + row * 108);
    const int r = 60 + random.below(180), g = 60 + random.below(180), b = 60 + random.below(180);
    for (int y = 0; y < Y(84); ++y)
      for (int x = 0; x < X(84); ++x) canvas.set(X(40) + x, top + y, r + y, g - x / 2, b);
    drawText(canvas, random, X(150), top + Y(6), width - X(60), Y(36), 25);
    drawText(canvas, random, X(150), top + Y(52), width - X(200), Y(28), 120);
    canvas.fill(X(150), top + Y(100), width, top + Y(100) + 1, 200, 200, 204);
  }
  // Thumbnails.
  for (int i = 0; i < 4; ++i) {
    drawPhoto(canvas, random, X(40 + i * 275), Y(2330), X(40 + i * 275 + 255), Y(2500), i * 1.7);
  }
  return buffer;
}

}  // namespace zephlo::bench
