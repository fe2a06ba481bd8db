#include "zephlo/base/utf8.hpp"

namespace zephlo {

bool isValidUtf8(std::span<const std::uint8_t> s) {
  std::size_t i = 0;
  while (i < s.size()) {
    const std::uint8_t c = s[i];
    const std::size_t len = c < 0x80                ? 1
                            : (c & 0xE0) == 0xC0 ? 2
                            : (c & 0xF0) == 0xE0 ? 3
                            : (c & 0xF8) == 0xF0 ? 4
                                                 : 0;
    if (len == 0 || i + len > s.size()) return false;
    std::uint32_t cp = len == 1 ? c : c & (0x7F >> len);
    for (std::size_t k = 1; k < len; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    static constexpr std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += len;
  }
  return true;
}

}  // namespace zephlo
