// PixelBufferPool: the screen buffers a screen source fills, reused instead of
// allocated per sample. A buffer handed out stays the producer's to fill until it
// is delivered; once every holder has let it go (the frame source keeps only the
// newest sample), the pool hands it out again. A full-size phone screen is 12 MB
// in BGRA, so reuse keeps memory at the two or three buffers in use at once.
//
// Owned by one screen source and used on its capture thread only. The buffers it
// hands out may be held and released on any thread (shared_ptr's count is
// atomic); only the pool ever hands out a new reference to one of them, so a
// buffer whose sole holder is the pool cannot be picked up by anyone else.
#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <vector>

#include "zephlo/platform/pixel_buffer.hpp"

namespace zephlo {

class PixelBufferPool {
 public:
  // At most `limit` buffers are made; a producer that can wait for one to come
  // back sets it. Their memory comes from `allocate`.
  PixelBufferPool(platform::PixelFormat format, int width, int height,
                  std::size_t limit = std::numeric_limits<std::size_t>::max(),
                  platform::PixelBuffer::Allocator allocate = platform::PixelBuffer::ownMemory);
  PixelBufferPool(const PixelBufferPool&) = delete;
  PixelBufferPool& operator=(const PixelBufferPool&) = delete;

  // A buffer nobody else holds, reused when one is free, else newly made. Its
  // content is whatever it held last. Null when the size is impossible, or when
  // all `limit` buffers are held.
  std::shared_ptr<platform::PixelBuffer> acquire();

  // Buffers made so far.
  std::size_t size() const { return buffers_.size(); }
  platform::PixelFormat format() const { return format_; }
  int width() const { return width_; }
  int height() const { return height_; }

 private:
  platform::PixelFormat format_;
  int width_;
  int height_;
  std::size_t limit_;
  platform::PixelBuffer::Allocator allocate_;
  std::vector<std::shared_ptr<platform::PixelBuffer>> buffers_;
};

}  // namespace zephlo
