#include "apps/service/jpeg_quality.hpp"

#include <array>
#include <cmath>
#include <cstddef>

namespace zephlo::service {

namespace {

// The standard luminance table (ITU T.81 Annex K.1) in zig-zag order, as it is
// stored in a DQT segment.
constexpr std::array<int, 64> kStandardLuminance = {
    16, 11, 12, 14, 12, 10, 16, 14, 13, 14, 18, 17, 16, 19, 24, 40,
    26, 24, 22, 22, 24, 49, 35, 37, 29, 40, 58, 51, 61, 60, 57, 51,
    56, 55, 64, 72, 92, 78, 64, 68, 87, 69, 55, 56, 80, 109, 81, 87,
    95, 98, 103, 104, 103, 62, 77, 113, 121, 112, 100, 120, 92, 101, 103, 99};

constexpr std::uint8_t kMarkerPrefix = 0xFF;
constexpr std::uint8_t kStartOfImage = 0xD8;
constexpr std::uint8_t kStartOfScan = 0xDA;
constexpr std::uint8_t kEndOfImage = 0xD9;
constexpr std::uint8_t kDefineQuantisation = 0xDB;

// IJG scales the standard table by S percent, where S = 5000 / q below 50 and
// 200 - 2q from 50 up; entries are clamped to 1..255 (baseline). Averaging
// entry / standard over the unclamped entries gives S back.
std::optional<int> qualityFromTable(const std::array<int, 64>& table) {
  double sum = 0;
  int counted = 0;
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (table[i] <= 1 || table[i] >= 255) continue;  // clamped: tells nothing exact
    sum += 100.0 * table[i] / kStandardLuminance[i];
    ++counted;
  }
  if (counted == 0) {
    // Every entry clamped: all ones is the top quality, all 255 the bottom.
    return table[0] <= 1 ? 100 : 1;
  }
  const double scale = sum / counted;
  double quality = scale <= 100.0 ? (200.0 - scale) / 2.0 : 5000.0 / scale;
  quality = std::round(quality);
  if (quality < 1) quality = 1;
  if (quality > 100) quality = 100;
  return static_cast<int>(quality);
}

}  // namespace

std::optional<int> estimateJpegQuality(std::span<const std::uint8_t> jpeg) {
  if (jpeg.size() < 4 || jpeg[0] != kMarkerPrefix || jpeg[1] != kStartOfImage)
    return std::nullopt;
  std::size_t pos = 2;
  while (pos + 4 <= jpeg.size()) {
    if (jpeg[pos] != kMarkerPrefix) return std::nullopt;
    const std::uint8_t marker = jpeg[pos + 1];
    if (marker == kMarkerPrefix) {  // fill byte before a marker
      ++pos;
      continue;
    }
    if (marker == kStartOfScan || marker == kEndOfImage) return std::nullopt;
    const std::size_t length = (std::size_t{jpeg[pos + 2]} << 8) | jpeg[pos + 3];
    if (length < 2 || pos + 2 + length > jpeg.size()) return std::nullopt;
    if (marker == kDefineQuantisation) {
      // One segment may hold several tables: a precision/id byte, then 64 entries
      // of one byte (precision 0) or two bytes (precision 1).
      std::size_t at = pos + 4;
      const std::size_t end = pos + 2 + length;
      while (at < end) {
        const int precision = jpeg[at] >> 4;
        const int id = jpeg[at] & 0x0F;
        const std::size_t entrySize = precision == 0 ? 1 : 2;
        if (precision > 1 || at + 1 + 64 * entrySize > end) return std::nullopt;
        if (id == 0) {
          std::array<int, 64> table{};
          for (std::size_t i = 0; i < 64; ++i) {
            const std::size_t e = at + 1 + i * entrySize;
            table[i] = entrySize == 1 ? jpeg[e] : (jpeg[e] << 8) | jpeg[e + 1];
          }
          return qualityFromTable(table);
        }
        at += 1 + 64 * entrySize;
      }
    }
    pos += 2 + length;
  }
  return std::nullopt;
}

}  // namespace zephlo::service
