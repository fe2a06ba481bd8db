#include "zephlo/events/event_fields_internal.hpp"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>

namespace zephlo::events_internal {

const ValueMap* typedDictionary(const Value& data, std::string_view typeName) {
  const ValueMap* dictionary = data.asMap();
  if (!dictionary) return nullptr;
  const Value* type = dictionary->find("type");
  if (!type || !type->asString() || *type->asString() != typeName) return nullptr;
  return dictionary;
}

namespace {
template <class F>
std::string shortestText(F number) {
  std::array<char, 64> buffer{};
  auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
  if (ec != std::errc()) return {};
  return std::string(buffer.data(), end);
}
}  // namespace

std::string textForm(const Value& value) {
  switch (value.type()) {
    case Value::Type::String:
      return *value.asString();
    case Value::Type::Bool:
      return *value.asBool() ? "true" : "false";
    case Value::Type::Int:
      return std::to_string(*value.asInt());
    case Value::Type::UInt:
      return std::to_string(*value.asUInt());
    case Value::Type::Float:
      return shortestText(*value.asFloat());
    case Value::Type::Double:
      return shortestText(*value.asDouble());
    default:
      return value.debugString();
  }
}

float narrow(double value) {
  // Converting a double beyond float's range is undefined in C++, so round it the
  // way IEEE round-to-nearest does. The largest float ends in an odd digit, which
  // makes a tie round up to infinity.
  constexpr double kMax = std::numeric_limits<float>::max();
  if (std::isfinite(value) && std::fabs(value) > kMax) {
    const double kHalfLastPlace = std::ldexp(1.0, 103);
    float limit = std::fabs(value) >= kMax + kHalfLastPlace ? std::numeric_limits<float>::infinity()
                                                            : std::numeric_limits<float>::max();
    return std::copysign(limit, static_cast<float>(std::signbit(value) ? -1 : 1));
  }
  return static_cast<float>(value);
}

std::optional<double> coordinate(const Value* value) {
  if (!value) return std::nullopt;
  std::optional<double> wide = value->toDouble();
  if (!wide) return std::nullopt;
  return static_cast<double>(narrow(*wide));
}

}  // namespace zephlo::events_internal
