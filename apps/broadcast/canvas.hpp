// Canvas: draws filled rectangles, gradients and digits into a PixelBuffer in
// either of its formats, so that the synthetic screen sources draw once and get
// BGRA or NV12 alike. Colours are sRGB; NV12 gets JFIF YCbCr (BT.601 weights,
// full range), the same conversion the renderer undoes. In NV12 a rectangle's
// chroma covers every 2x2 block it touches.
//
// A short-lived view over a buffer that the caller is filling: used on one thread
// while nobody else holds the buffer.
#pragma once

#include <cstdint>
#include <string_view>

#include "zephlo/platform/pixel_buffer.hpp"

namespace zephlo {

struct Rgb {
  std::uint8_t r = 0, g = 0, b = 0;
  bool operator==(const Rgb&) const = default;
};

struct Rect {
  int x = 0, y = 0, width = 0, height = 0;
};

class Canvas {
 public:
  explicit Canvas(platform::PixelBuffer& buffer) : buffer_(buffer) {}

  int width() const { return buffer_.width(); }
  int height() const { return buffer_.height(); }

  // Fills `rect` (clipped to the buffer) with `colour`.
  void fill(Rect rect, Rgb colour);
  // Fills `rect` with colours running from `top` to `bottom`.
  void verticalGradient(Rect rect, Rgb top, Rgb bottom);
  // Fills `rect` with colours running from `left` to `right`.
  void horizontalGradient(Rect rect, Rgb left, Rgb right);
  // Draws `text` (digits, ':' and ' ') in a 5x7 dot font, each dot `dot` pixels
  // square, with its top-left corner at (x, y). Other characters leave a gap.
  void text(int x, int y, std::string_view text, int dot, Rgb colour);
  // The width `text` takes at `dot`.
  static int textWidth(std::string_view text, int dot);

  // The colour at (x, y) as stored (NV12 converted back); for tests.
  Rgb at(int x, int y) const;

 private:
  // Fills one row segment [x0, x1) of row y with `colour` (luma or BGRA), and the
  // chroma of the blocks it touches.
  void span(int y, int x0, int x1, Rgb colour);

  platform::PixelBuffer& buffer_;
};

}  // namespace zephlo
