// isValidUtf8: the one check of text received from outside (JSON, keychain data,
// system facts) before it becomes a string Value. Any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace zephlo {

// Well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUtf8(std::span<const std::uint8_t> bytes);
inline bool isValidUtf8(std::string_view text) {
  return isValidUtf8(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

}  // namespace zephlo
