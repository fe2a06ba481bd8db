#include "apps/broadcast/pixel_buffer_pool.hpp"

#include <gtest/gtest.h>

namespace zephlo {
namespace {

TEST(PixelBufferPoolTest, ABufferOfThePoolsFormatAndSizeComesBackOnceEveryHolderLetsGo) {
  PixelBufferPool pool(platform::PixelFormat::NV12, 6, 4);
  auto first = pool.acquire();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->format(), platform::PixelFormat::NV12);
  EXPECT_EQ(std::pair(first->width(), first->height()), std::pair(6, 4));
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
  EXPECT_FALSE(PixelBufferPool(platform::PixelFormat::BGRA, 0, 4).acquire());
}

}  // namespace
}  // namespace zephlo
