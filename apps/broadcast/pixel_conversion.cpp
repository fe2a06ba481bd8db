#include "apps/broadcast/pixel_conversion.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace zephlo {

namespace {
// Fixed point with 16 fractional bits; the +0.5 rounds.
constexpr int kOne = 1 << 16;
constexpr int fix(double v) { return static_cast<int>(v * kOne + (v < 0 ? -0.5 : 0.5)); }
std::uint8_t clip(int v) { return static_cast<std::uint8_t>(std::clamp(v, 0, 255)); }

// `height` rows of `width` pixels into planes whose first luma row is `lumaOut`
// and first Cb/Cr row `chromaOut`.
void convertBgraToNv12(const std::uint8_t* bgra, int stride, int width, int height, std::uint8_t* lumaOut,
                       int lumaStride, std::uint8_t* chromaOut, int chromaStride) {
  for (int y = 0; y < height; ++y) {
    const std::uint8_t* in = bgra + static_cast<std::ptrdiff_t>(y) * stride;
    std::uint8_t* luma = lumaOut + static_cast<std::ptrdiff_t>(y) * lumaStride;
    for (int x = 0; x < width; ++x) {
      luma[x] = clip((fix(0.299) * in[4 * x + 2] + fix(0.587) * in[4 * x + 1] + fix(0.114) * in[4 * x] + kOne / 2) >> 16);
    }
  }
  for (int cy = 0; cy < (height + 1) / 2; ++cy) {
    std::uint8_t* chroma = chromaOut + static_cast<std::ptrdiff_t>(cy) * chromaStride;
    const int y0 = 2 * cy, y1 = std::min(2 * cy + 1, height - 1);
    const std::uint8_t* r0 = bgra + static_cast<std::ptrdiff_t>(y0) * stride;
    const std::uint8_t* r1 = bgra + static_cast<std::ptrdiff_t>(y1) * stride;
    for (int cx = 0; cx < (width + 1) / 2; ++cx) {
      const int x0 = 2 * cx, x1 = std::min(2 * cx + 1, width - 1);
      const int b = r0[4 * x0] + r0[4 * x1] + r1[4 * x0] + r1[4 * x1];
      const int g = r0[4 * x0 + 1] + r0[4 * x1 + 1] + r1[4 * x0 + 1] + r1[4 * x1 + 1];
      const int r = r0[4 * x0 + 2] + r0[4 * x1 + 2] + r1[4 * x0 + 2] + r1[4 * x1 + 2];
      // Sums of four pixels: divide by 4 inside the shift.
      chroma[2 * cx] = clip(((fix(-0.168736) * r + fix(-0.331264) * g + fix(0.5) * b) / 4 + 128 * kOne + kOne / 2) >> 16);
      chroma[2 * cx + 1] = clip(((fix(0.5) * r + fix(-0.418688) * g + fix(-0.081312) * b) / 4 + 128 * kOne + kOne / 2) >> 16);
    }
  }
}

}  // namespace

void convertBgraToNv12(const std::uint8_t* bgra, int stride, int width, int height, platform::PixelBuffer& nv12) {
  convertBgraToNv12(bgra, stride, width, height, nv12.mutablePlane(0), nv12.stride(0), nv12.mutablePlane(1),
                    nv12.stride(1));
}

void convertBgraRectToNv12(const std::uint8_t* bgra, int stride, int x, int y, int width, int height,
                           platform::PixelBuffer& nv12) {
  convertBgraToNv12(bgra + static_cast<std::ptrdiff_t>(y) * stride + static_cast<std::ptrdiff_t>(x) * 4, stride, width,
                    height, nv12.mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * nv12.stride(0) + x,
                    nv12.stride(0), nv12.mutablePlane(1) + static_cast<std::ptrdiff_t>(y / 2) * nv12.stride(1) + x,
                    nv12.stride(1));
}

void copyBgra(const std::uint8_t* bgra, int stride, int width, int height, platform::PixelBuffer& out) {
  for (int y = 0; y < height; ++y) {
    std::memcpy(out.mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * out.stride(0),
                bgra + static_cast<std::ptrdiff_t>(y) * stride, static_cast<std::size_t>(width) * 4);
  }
}

void copyToOpaqueBgra(const std::uint8_t* pixels, int stride, int width, int height, bool swapRedBlue,
                      platform::PixelBuffer& out) {
  // Whole pixels as little-endian words, one loop per order: this runs on every
  // frame of a changing screen, and the compiler makes vector code of it.
  static_assert(std::endian::native == std::endian::little);
  for (int y = 0; y < height; ++y) {
    const std::uint8_t* __restrict in = pixels + static_cast<std::ptrdiff_t>(y) * stride;
    std::uint8_t* __restrict row = out.mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * out.stride(0);
    if (swapRedBlue) {
      for (int x = 0; x < width; ++x) {
        std::uint32_t p;
        std::memcpy(&p, in + 4 * x, 4);
        p = (p & 0x0000ff00u) | ((p >> 16) & 0xffu) | ((p & 0xffu) << 16) | 0xff000000u;
        std::memcpy(row + 4 * x, &p, 4);
      }
    } else {
      for (int x = 0; x < width; ++x) {
        std::uint32_t p;
        std::memcpy(&p, in + 4 * x, 4);
        p |= 0xff000000u;
        std::memcpy(row + 4 * x, &p, 4);
      }
    }
  }
}

void convertNv12ToBgra(const std::uint8_t* luma, int lumaStride, const std::uint8_t* chroma, int chromaStride,
                       int width, int height, platform::PixelBuffer& out) {
  for (int y = 0; y < height; ++y) {
    const std::uint8_t* yRow = luma + static_cast<std::ptrdiff_t>(y) * lumaStride;
    const std::uint8_t* cRow = chroma + static_cast<std::ptrdiff_t>(y / 2) * chromaStride;
    std::uint8_t* row = out.mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * out.stride(0);
    for (int x = 0; x < width; ++x) {
      const int l = yRow[x] * kOne + kOne / 2, cb = cRow[x & ~1] - 128, cr = cRow[(x & ~1) + 1] - 128;
      row[4 * x] = clip((l + fix(1.772) * cb) >> 16);
      row[4 * x + 1] = clip((l - fix(0.344136) * cb - fix(0.714136) * cr) >> 16);
      row[4 * x + 2] = clip((l + fix(1.402) * cr) >> 16);
      row[4 * x + 3] = 255;
    }
  }
}

void copyNv12(const std::uint8_t* luma, int lumaStride, const std::uint8_t* chroma, int chromaStride, int width,
              int height, platform::PixelBuffer& out) {
  for (int y = 0; y < height; ++y) {
    std::memcpy(out.mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * out.stride(0),
                luma + static_cast<std::ptrdiff_t>(y) * lumaStride, static_cast<std::size_t>(width));
  }
  for (int y = 0; y < (height + 1) / 2; ++y) {
    std::memcpy(out.mutablePlane(1) + static_cast<std::ptrdiff_t>(y) * out.stride(1),
                chroma + static_cast<std::ptrdiff_t>(y) * chromaStride, static_cast<std::size_t>((width + 1) / 2 * 2));
  }
}

}  // namespace zephlo
