// JSON text <-> Value, with the strictness the service's replies are held to:
//
// - the top-level value must be an object or an array;
// - a number outside the range of a double is an error, never an infinity;
// - nesting is accepted up to 512 levels;
// - integers become Int (int64), or UInt when above the int64 range; every other
//   number becomes Double; objects keep their key order (a repeated key keeps
//   its last value).
//
// Writing holds the same shape (the top level must be a map or an array) and fails
// for what JSON cannot carry: byte buffers, NaN and infinities, non-text map keys,
// CBOR simple values and items, text that is not UTF-8, nesting deeper than 512. Writing never escapes "/" and writes numbers in their
// shortest exact form.
//
// Free functions without state: any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "zephlo/base/value.hpp"

namespace zephlo::json {

inline constexpr std::size_t kMaxDepth = 512;

// The value of `text`, or empty with a one-line reason in `error`.
std::optional<Value> parse(std::string_view text, std::string* error = nullptr);

// The JSON text of `value`, or empty with a one-line reason in `error`.
std::optional<std::string> serialize(const Value& value, std::string* error = nullptr);

}  // namespace zephlo::json
