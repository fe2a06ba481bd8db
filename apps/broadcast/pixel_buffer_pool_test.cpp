#include "apps/broadcast/pixel_buffer_pool.hpp"

#include <gtest/gtest.h>

namespace zephlo {
namespace {

TEST(PixelBufferPoolTest, ABufferComesBackOnceEveryHolderLetsGo) {
  PixelBufferPool pool(platform::PixelFormat::BGRA, 8, 4);
  auto first = pool.acquire();
  ASSERT_TRUE(first);
  std::shared_ptr<const platform::PixelBuffer> heldElsewhere = first;
  auto* address = first.get();
  first.reset();

  auto second = pool.acquire();
  EXPECT_NE(second.get(), address) << "still held by someone else";
  EXPECT_EQ(pool.size(), 2u);

  heldElsewhere.reset();
  second.reset();
  auto third = pool.acquire();
  auto fourth = pool.acquire();
  EXPECT_EQ(pool.size(), 2u);
  EXPECT_NE(third.get(), fourth.get());

  PixelBufferPool limited(platform::PixelFormat::BGRA, 8, 4, 2);
  auto a = limited.acquire(), b = limited.acquire();
  EXPECT_FALSE(limited.acquire()) << "both held, and no third may be made";
  b.reset();
  EXPECT_TRUE(limited.acquire());
}

TEST(PixelBufferPoolTest, BuffersHaveThePoolsFormatAndSize) {
  PixelBufferPool pool(platform::PixelFormat::NV12, 6, 4);
  auto buffer = pool.acquire();
  ASSERT_TRUE(buffer);
  EXPECT_EQ(buffer->format(), platform::PixelFormat::NV12);
  EXPECT_EQ(buffer->width(), 6);
  EXPECT_EQ(buffer->height(), 4);
  PixelBufferPool impossible(platform::PixelFormat::BGRA, 0, 4);
  EXPECT_FALSE(impossible.acquire());
}

}  // namespace
}  // namespace zephlo
