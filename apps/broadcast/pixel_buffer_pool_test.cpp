#include "apps/broadcast/pixel_buffer_pool.hpp"

#include <gtest/gtest.h>

namespace zephlo {
namespace {

// A buffer of the pool's format and size, and its return once every holder lets
// go, show in the test pattern's tests; here, the limit.
TEST(PixelBufferPoolTest, MakesNoBufferBeyondItsLimitOrOfASizeItCannotHold) {
  PixelBufferPool limited(platform::PixelFormat::BGRA, 8, 4, 2);
  auto a = limited.acquire(), b = limited.acquire();
  EXPECT_FALSE(limited.acquire()) << "both held, and no third may be made";
  b.reset();
  EXPECT_TRUE(limited.acquire());
  EXPECT_FALSE(PixelBufferPool(platform::PixelFormat::BGRA, 0, 4).acquire());
}

}  // namespace
}  // namespace zephlo
