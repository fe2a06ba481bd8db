#include "zephlo/events/laser.hpp"

#include <gtest/gtest.h>

#include <optional>

namespace zephlo {
namespace {

// A laser dictionary with `changes` applied and `dropped` left out.
Value laser(std::initializer_list<ValueMap::Entry> changes, const char* dropped = "") {
  ValueMap m{{"type", "Laser"}, {"id", "l"}, {"state", "touchmove"}};
  for (const auto& [k, v] : changes) m.set(k, v);
  m.erase(dropped);
  return m;
}

TEST(ZPHLaserTest, ParsesIdStateAndNumericPosition) {
  const std::tuple<const char*, Value, std::optional<Point>, const char*> cases[] = {  // no position: rejected
      {"full", laser({{"state", "touchstart"}, {"x", 12.5}, {"y", 3}}), Point{12.5, 3}, "touchstart"},
      {"y missing", laser({{"state", "touchend"}, {"x", 12}}), Point{0, 0}, "touchend"},
      {"no position", laser({{"state", "hover"}}), Point{0, 0}, "hover"},
      {"state missing", laser({{"x", 1}, {"y", 1}}, "state"), std::nullopt, ""},
      {"id missing", laser({}, "id"), std::nullopt, ""}, {"not a dictionary", Value(3.5), std::nullopt, ""},
      {"type of a touch", laser({{"type", "Touch"}}), std::nullopt, ""},
      {"type with a blank", laser({{"type", "Laser "}}), std::nullopt, ""},
  };
  for (const auto& [name, data, position, state] : cases) {
    SCOPED_TRACE(name);
    auto parsed = ZPHLaser::from(data);
    ASSERT_EQ(parsed != nullptr, position.has_value());
    if (!parsed) continue;
    EXPECT_EQ(parsed->position(), *position);
    EXPECT_EQ(parsed->state(), state);
    EXPECT_EQ(parsed->id(), "l");
  }
}

}  // namespace
}  // namespace zephlo
