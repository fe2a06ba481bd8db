#include "apps/broadcast/test_pattern_source.hpp"

#include <gtest/gtest.h>

#include <cstring>

namespace zephlo {
namespace {

using namespace std::chrono_literals;
using platform::PixelBuffer;
using platform::PixelFormat;

// How many rows of the first plane differ between two buffers of one size and format.
int changedRows(const PixelBuffer& a, const PixelBuffer& b) {
  const int rowBytes = a.format() == PixelFormat::BGRA ? 4 * a.width() : a.width();
  int changed = 0;
  for (int y = 0; y < a.height(); ++y)
    changed += std::memcmp(a.plane(0) + y * a.stride(0), b.plane(0) + y * b.stride(0), rowBytes) != 0;
  return changed;
}

class TestPatternSourceTest : public ::testing::TestWithParam<PixelFormat> {};

TEST_P(TestPatternSourceTest, OneBufferASecondWithItsOrientationAndBuffersAreReused) {
  TestPatternSource source(GetParam(), 390, 844, 3, 0, 30);
  auto second0 = source.sampleAt(100ms);
  auto again = source.sampleAt(900ms);
  auto second1 = source.sampleAt(1s);
  ASSERT_TRUE(second0 && again && second1);
  EXPECT_EQ(second0->imageBuffer(), again->imageBuffer());
  EXPECT_EQ(second0->imageBuffer()->format(), GetParam());
  EXPECT_EQ(second0->imageBuffer()->width(), 390);
  EXPECT_EQ(second0->imageBuffer()->height(), 844);
  EXPECT_EQ(second0->orientationAttachment(), 3);
  EXPECT_NE(second0->imageBuffer(), second1->imageBuffer());
  EXPECT_GT(changedRows(*second0->imageBuffer(), *second1->imageBuffer()), 0);
  // The frame source keeps only the newest sample; the older buffer comes back.
  const auto* older = second0->imageBuffer().get();
  second0.reset();
  again.reset();
  auto second2 = source.sampleAt(2s);
  EXPECT_EQ(second2->imageBuffer().get(), older);
  for (int s = 3; s < 20; ++s) {
    second1 = std::move(second2);
    second2 = source.sampleAt(std::chrono::seconds(s));
  }
  EXPECT_EQ(source.pool().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Formats, TestPatternSourceTest, ::testing::Values(PixelFormat::BGRA, PixelFormat::NV12));

TEST(TestPatternDrawTest, OnlyPartOfTheScreenChangesFromOneSecondToTheNext) {
  auto a = PixelBuffer::create(PixelFormat::BGRA, 1170, 2532);
  auto b = PixelBuffer::create(PixelFormat::BGRA, 1170, 2532);
  TestPatternSource::draw(*a, 3600);
  TestPatternSource::draw(*b, 3601);
  // The clock and the progress bar change; the rest of the screen stays.
  const int changed = changedRows(*a, *b);
  EXPECT_GT(changed, 0);
  EXPECT_LT(changed, 2532 / 10);
  auto again = PixelBuffer::create(PixelFormat::BGRA, 1170, 2532);
  TestPatternSource::draw(*again, 3601);
  EXPECT_EQ(changedRows(*b, *again), 0);
}

}  // namespace
}  // namespace zephlo
