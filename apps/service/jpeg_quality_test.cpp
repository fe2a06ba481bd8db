#include "apps/service/jpeg_quality.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "zephlo/base/value.hpp"

namespace zephlo::service {
namespace {

// The standard luminance table in natural (row-major) order, and the zig-zag
// sequence in which a DQT segment stores it.
constexpr std::array<int, 64> kNatural = {
    16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
    14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
    18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
    49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
constexpr std::array<int, 64> kZigZag = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
    41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
    30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

// The table an IJG encoder writes for `quality`.
std::array<int, 64> ijgTable(int quality) {
  const int scale = quality < 50 ? 5000 / quality : 200 - 2 * quality;
  std::array<int, 64> table{};
  for (int i = 0; i < 64; ++i) table[i] = std::clamp((kNatural[kZigZag[i]] * scale + 50) / 100, 1, 255);
  return table;
}

void appendSegment(Bytes& out, std::uint8_t marker, const Bytes& payload) {
  const std::size_t length = payload.size() + 2;
  out.insert(out.end(), {0xFF, marker, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)});
  out.insert(out.end(), payload.begin(), payload.end());
}

Bytes tablePayload(int id, const std::array<int, 64>& table, bool sixteenBit = false) {
  Bytes p{static_cast<std::uint8_t>((sixteenBit ? 0x10 : 0x00) | id)};
  for (int v : table) {
    if (sixteenBit) p.push_back(static_cast<std::uint8_t>(v >> 8));
    p.push_back(static_cast<std::uint8_t>(v));
  }
  return p;
}

// SOI, an APP0 segment, the given DQT payload, then a scan that must not be read.
Bytes jpegWith(const Bytes& dqt) {
  Bytes out{0xFF, 0xD8};
  appendSegment(out, 0xE0, {'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0});
  appendSegment(out, 0xDB, dqt);
  appendSegment(out, 0xDA, {1, 2, 3});
  out.insert(out.end(), {0x12, 0x34, 0xFF, 0xD9});
  return out;
}

TEST(JpegQualityTest, ReadsTheQualityBackFromTheLuminanceTable) {
  for (int quality : {5, 20, 30, 40, 50, 60, 75, 90, 95}) {
    SCOPED_TRACE(quality);
    const auto estimate = estimateJpegQuality(jpegWith(tablePayload(0, ijgTable(quality))));
    ASSERT_TRUE(estimate.has_value());
    EXPECT_NEAR(*estimate, quality, 1);
  }
  // All ones is the top of the scale.
  std::array<int, 64> ones;
  ones.fill(1);
  EXPECT_EQ(estimateJpegQuality(jpegWith(tablePayload(0, ones))), 100);
  // Chrominance first in the same segment, then luminance with 16-bit entries.
  Bytes dqt = tablePayload(1, ijgTable(10));
  const Bytes luminance = tablePayload(0, ijgTable(70), true);
  dqt.insert(dqt.end(), luminance.begin(), luminance.end());
  EXPECT_EQ(estimateJpegQuality(jpegWith(dqt)), 70);
}

TEST(JpegQualityTest, MalformedInputYieldsNothing) {
  const Bytes good = jpegWith(tablePayload(0, ijgTable(60)));
  EXPECT_FALSE(estimateJpegQuality(Bytes{0x89, 'P', 'N', 'G', 0, 0}));  // not a JPEG
  // Every truncation of a valid header up to the end of the table, from none at all.
  for (std::size_t n = 0; n < 20 + 4 + 65; ++n)
    EXPECT_FALSE(estimateJpegQuality(std::span(good.data(), n))) << n;
  // A segment length running past the end.
  Bytes longLength = good;
  longLength[4] = 0x7F;
  EXPECT_FALSE(estimateJpegQuality(longLength));
  // A table declared shorter than its 64 entries.
  Bytes shortTable{0xFF, 0xD8};
  appendSegment(shortTable, 0xDB, Bytes(20, 0x10));
  EXPECT_FALSE(estimateJpegQuality(shortTable));
  // Only a chrominance table, and a scan before any table.
  EXPECT_FALSE(estimateJpegQuality(jpegWith(tablePayload(1, ijgTable(60)))));
  Bytes scanFirst{0xFF, 0xD8};
  appendSegment(scanFirst, 0xDA, {1, 2, 3});
  appendSegment(scanFirst, 0xDB, tablePayload(0, ijgTable(60)));
  EXPECT_FALSE(estimateJpegQuality(scanFirst));
}

}  // namespace
}  // namespace zephlo::service
