// Helpers shared by the agent-event parsers: how a received value becomes a text
// field or a coordinate. Pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "zephlo/base/value.hpp"

namespace zephlo::events_internal {

// The dictionary behind `data` when it is a map whose "type" entry is the text
// `typeName` (exact, case-sensitive); null otherwise.
const ValueMap* typedDictionary(const Value& data, std::string_view typeName);

// The text kept for a text field. Required keys are only tested for presence, so
// a number or a map may arrive where text is expected: text is kept as it is and
// anything else as a readable form of the value (42, 2.5, true, [1, 2]).
std::string textForm(const Value& value);

// `value` rounded to the nearest float, as the hardware conversion does: beyond
// float's range it becomes the largest float or the infinity of its sign.
float narrow(double value);

// A coordinate as the agent's 32-bit floats carry it: narrowed to float and
// widened back. Empty when the value is absent or not a number.
std::optional<double> coordinate(const Value* value);

}  // namespace zephlo::events_internal
