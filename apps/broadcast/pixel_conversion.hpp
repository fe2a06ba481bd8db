// Writes a BGRA picture into an NV12 buffer of the same size (JFIF YCbCr, BT.601
// weights over the full range; each Cb/Cr pair from the average of its 2x2
// pixels), so that sources holding BGRA can fill pooled NV12 buffers without
// allocating. Pure function; any thread.
#pragma once

#include <cstdint>

#include "zephlo/platform/pixel_buffer.hpp"

namespace zephlo {

// `bgra` points at the first of `height` rows of `width` BGRA pixels, `stride`
// bytes apart. `nv12` must be NV12 and at least that large.
void convertBgraToNv12(const std::uint8_t* bgra, int stride, int width, int height, platform::PixelBuffer& nv12);
// The same for the rectangle at (`x`, `y`), both even, of the picture whose
// first row `bgra` points at, into the same place of `nv12`; its width and
// height are even unless it reaches the picture's right or bottom edge.
void convertBgraRectToNv12(const std::uint8_t* bgra, int stride, int x, int y, int width, int height,
                           platform::PixelBuffer& nv12);

// Copies `height` rows of `width` BGRA pixels into the BGRA buffer `out`.
void copyBgra(const std::uint8_t* bgra, int stride, int width, int height, platform::PixelBuffer& out);

// Copies 32-bit pixels in B,G,R,x order (or R,G,B,x when `swapRedBlue`) into the
// BGRA buffer `out` as opaque pixels: the fourth byte of a screen is padding.
void copyToOpaqueBgra(const std::uint8_t* pixels, int stride, int width, int height, bool swapRedBlue,
                      platform::PixelBuffer& out);

// Writes an NV12 picture (a Y plane, then interleaved Cb/Cr at half size; JFIF
// YCbCr) into the BGRA buffer `out`.
void convertNv12ToBgra(const std::uint8_t* luma, int lumaStride, const std::uint8_t* chroma, int chromaStride,
                       int width, int height, platform::PixelBuffer& out);

// Copies an NV12 picture into the NV12 buffer `out`.
void copyNv12(const std::uint8_t* luma, int lumaStride, const std::uint8_t* chroma, int chromaStride, int width,
              int height, platform::PixelBuffer& out);

}  // namespace zephlo
