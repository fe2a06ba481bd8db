#include "apps/broadcast/canvas.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

namespace zephlo {

namespace {

using platform::PixelFormat;

std::uint8_t clampByte(double v) { return static_cast<std::uint8_t>(std::clamp(std::lround(v), 0L, 255L)); }

std::uint8_t luma(Rgb c) { return clampByte(0.299 * c.r + 0.587 * c.g + 0.114 * c.b); }
std::uint8_t cb(Rgb c) { return clampByte(-0.168736 * c.r - 0.331264 * c.g + 0.5 * c.b + 128); }
std::uint8_t cr(Rgb c) { return clampByte(0.5 * c.r - 0.418688 * c.g - 0.081312 * c.b + 128); }

Rgb mix(Rgb a, Rgb b, double t) {
  return {clampByte(a.r + (b.r - a.r) * t), clampByte(a.g + (b.g - a.g) * t), clampByte(a.b + (b.b - a.b) * t)};
}

// 5x7 dots, one row per byte, the leftmost dot in bit 4.
constexpr std::array<std::array<std::uint8_t, 7>, 11> kGlyphs = {{
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E},  // 0
    {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},  // 1
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F},  // 2
    {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},  // 3
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02},  // 4
    {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},  // 5
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E},  // 6
    {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},  // 7
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E},  // 8
    {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},  // 9
    {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00},  // :
}};

const std::array<std::uint8_t, 7>* glyph(char c) {
  if (c >= '0' && c <= '9') return &kGlyphs[static_cast<std::size_t>(c - '0')];
  if (c == ':') return &kGlyphs[10];
  return nullptr;
}

}  // namespace

void Canvas::span(int y, int x0, int x1, Rgb colour) {
  if (y < 0 || y >= height()) return;
  x0 = std::max(x0, 0);
  x1 = std::min(x1, width());
  if (x0 >= x1) return;
  if (buffer_.format() == PixelFormat::BGRA) {
    std::uint8_t* row = buffer_.mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * buffer_.stride(0);
    const std::uint8_t pixel[4] = {colour.b, colour.g, colour.r, 255};
    for (int x = x0; x < x1; ++x) std::memcpy(row + 4 * x, pixel, 4);
    return;
  }
  std::uint8_t* lumaRow = buffer_.mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * buffer_.stride(0);
  std::memset(lumaRow + x0, luma(colour), static_cast<std::size_t>(x1 - x0));
  std::uint8_t* chromaRow = buffer_.mutablePlane(1) + static_cast<std::ptrdiff_t>(y / 2) * buffer_.stride(1);
  const std::uint8_t u = cb(colour), v = cr(colour);
  for (int cx = x0 / 2; cx <= (x1 - 1) / 2; ++cx) {
    chromaRow[2 * cx] = u;
    chromaRow[2 * cx + 1] = v;
  }
}

void Canvas::fill(Rect rect, Rgb colour) {
  for (int y = rect.y; y < rect.y + rect.height; ++y) span(y, rect.x, rect.x + rect.width, colour);
}

void Canvas::verticalGradient(Rect rect, Rgb top, Rgb bottom) {
  for (int i = 0; i < rect.height; ++i) {
    const double t = rect.height > 1 ? static_cast<double>(i) / (rect.height - 1) : 0;
    span(rect.y + i, rect.x, rect.x + rect.width, mix(top, bottom, t));
  }
}

void Canvas::horizontalGradient(Rect rect, Rgb left, Rgb right) {
  // Columns of one colour each; adjacent columns of equal colour go as one span.
  int start = rect.x;
  Rgb current = left;
  for (int i = 0; i <= rect.width; ++i) {
    const double t = rect.width > 1 ? static_cast<double>(std::min(i, rect.width - 1)) / (rect.width - 1) : 0;
    const Rgb colour = mix(left, right, t);
    if (i == rect.width || !(colour == current)) {
      for (int y = rect.y; y < rect.y + rect.height; ++y) span(y, start, rect.x + i, current);
      start = rect.x + i;
      current = colour;
    }
  }
}

void Canvas::text(int x, int y, std::string_view text, int dot, Rgb colour) {
  for (char c : text) {
    if (const auto* g = glyph(c)) {
      for (int row = 0; row < 7; ++row) {
        for (int col = 0; col < 5; ++col) {
          if ((*g)[static_cast<std::size_t>(row)] & (0x10 >> col)) {
            fill({x + col * dot, y + row * dot, dot, dot}, colour);
          }
        }
      }
    }
    x += 6 * dot;
  }
}

int Canvas::textWidth(std::string_view text, int dot) {
  return text.empty() ? 0 : static_cast<int>(text.size()) * 6 * dot - dot;
}

Rgb Canvas::at(int x, int y) const {
  if (buffer_.format() == PixelFormat::BGRA) {
    const std::uint8_t* p = buffer_.plane(0) + static_cast<std::ptrdiff_t>(y) * buffer_.stride(0) + 4 * x;
    return {p[2], p[1], p[0]};
  }
  const double yy = buffer_.plane(0)[static_cast<std::ptrdiff_t>(y) * buffer_.stride(0) + x];
  const std::uint8_t* c = buffer_.plane(1) + static_cast<std::ptrdiff_t>(y / 2) * buffer_.stride(1) + 2 * (x / 2);
  const double u = c[0] - 128.0, v = c[1] - 128.0;
  return {clampByte(yy + 1.402 * v), clampByte(yy - 0.344136 * u - 0.714136 * v), clampByte(yy + 1.772 * u)};
}

}  // namespace zephlo
