#include "apps/broadcast/pixel_buffer_pool.hpp"

#include <utility>

namespace zephlo {

PixelBufferPool::PixelBufferPool(platform::PixelFormat format, int width, int height, std::size_t limit,
                                 platform::PixelBuffer::Allocator allocate)
    : format_(format), width_(width), height_(height), limit_(limit), allocate_(std::move(allocate)) {}

std::shared_ptr<platform::PixelBuffer> PixelBufferPool::acquire() {
  for (const auto& buffer : buffers_) {
    if (buffer.use_count() == 1) return buffer;
  }
  if (buffers_.size() >= limit_) return nullptr;
  auto buffer = platform::PixelBuffer::create(format_, width_, height_, allocate_);
  if (buffer) buffers_.push_back(buffer);
  return buffer;
}

}  // namespace zephlo
