// Typed reads of a map's entries that point into the map itself. (ValueMap::get
// returns a copy, so a pointer taken from it would outlive the copy.) Pure
// functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "zephlo/base/value.hpp"

namespace zephlo::service {

inline const std::string* textField(const ValueMap& m, std::string_view key) {
  const Value* v = m.find(key);
  return v ? v->asString() : nullptr;
}
inline const std::uint64_t* unsignedField(const ValueMap& m, std::string_view key) {
  const Value* v = m.find(key);
  return v ? v->asUInt() : nullptr;
}
inline const ValueMap* mapField(const ValueMap& m, std::string_view key) {
  const Value* v = m.find(key);
  return v ? v->asMap() : nullptr;
}
inline const ValueArray* arrayField(const ValueMap& m, std::string_view key) {
  const Value* v = m.find(key);
  return v ? v->asArray() : nullptr;
}
inline const Bytes* bytesField(const ValueMap& m, std::string_view key) {
  const Value* v = m.find(key);
  return v ? v->asBytes() : nullptr;
}

}  // namespace zephlo::service
