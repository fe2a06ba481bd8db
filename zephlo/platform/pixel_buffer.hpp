// PixelBuffer: one uncompressed screen picture as the capture side delivers it,
// in BGRA (8 bits per channel, one plane) or NV12 full range (a Y plane, then one
// plane of interleaved Cb/Cr at half width and half height). Values are JFIF
// YCbCr: BT.601 coefficients over the full 0..255 range, the same as JPEG's.
//
// Rows are padded to 64 bytes, so a plane's stride is larger than its visible
// width in general; readers always go through `stride`. A buffer is filled once by
// its producer and then shared read-only (`std::shared_ptr<const PixelBuffer>`):
// the frame source keeps the newest one, and a renderer reads it on the main queue.
//
// THREADING: filled on the producing thread before it is shared; after that only
// read, from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace zephlo::platform {

enum class PixelFormat { BGRA, NV12 };

class PixelBuffer {
 public:
  // Largest width or height accepted; bigger sizes are refused rather than
  // attempted.
  static constexpr int kMaxDimension = 16384;

  // Memory for a buffer's planes, `bytes` long and zero-filled; what it returns
  // owns the memory and is kept until the buffer goes. Null when there is none.
  using Allocator = std::function<std::shared_ptr<std::uint8_t>(std::size_t bytes)>;
  // The process's own memory, where buffers are made unless told otherwise.
  static std::shared_ptr<std::uint8_t> ownMemory(std::size_t bytes);

  // A zero-filled buffer in memory from `allocate` (shared memory that another
  // process writes a picture into, say); null when the size is not positive or
  // too large, or when `allocate` gives none.
  static std::shared_ptr<PixelBuffer> create(PixelFormat format, int width, int height,
                                             const Allocator& allocate = ownMemory);
  // An NV12 copy of a BGRA buffer (each Cb/Cr pair from the average colour of its
  // 2×2 pixels), for producers whose screen hands out BGRA; null when `bgra` is
  // not BGRA.
  static std::shared_ptr<PixelBuffer> nv12From(const PixelBuffer& bgra);

  PixelBuffer(const PixelBuffer&) = delete;
  PixelBuffer& operator=(const PixelBuffer&) = delete;

  PixelFormat format() const { return format_; }
  int width() const { return width_; }
  int height() const { return height_; }

  // 1 for BGRA, 2 for NV12.
  int planeCount() const { return format_ == PixelFormat::BGRA ? 1 : 2; }
  // Visible size of a plane in samples (a BGRA pixel and an NV12 Cb/Cr pair each
  // count as one).
  int planeWidth(int plane) const;
  int planeHeight(int plane) const;
  // Bytes from one row of a plane to the next.
  int stride(int plane) const { return strides_[plane]; }
  const std::uint8_t* plane(int plane) const { return memory_.get() + offsets_[plane]; }
  std::uint8_t* mutablePlane(int plane) { return memory_.get() + offsets_[plane]; }

 private:
  PixelBuffer(PixelFormat format, int width, int height);

  PixelFormat format_;
  int width_;
  int height_;
  int strides_[2] = {0, 0};
  std::size_t offsets_[2] = {0, 0};
  std::size_t bytes_ = 0;
  std::shared_ptr<std::uint8_t> memory_;
};

}  // namespace zephlo::platform
