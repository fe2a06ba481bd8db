#include "zephlo/events/laser.hpp"

#include <gtest/gtest.h>

#include <optional>

namespace zephlo {
namespace {

struct LaserCase {
  const char* name;
  Value data;
  std::optional<Point> position;  // empty: rejected
  const char* state = "";
};

TEST(ZPHLaserTest, ParsesIdStateAndNumericPosition) {
  const LaserCase cases[] = {
      {"full", ValueMap{{"type", "Laser"}, {"id", "l"}, {"state", "touchstart"}, {"x", 12.5}, {"y", 3}},
       Point{12.5, 3}, "touchstart"},
      {"x as text falls back to the origin",
       ValueMap{{"type", "Laser"}, {"id", "l"}, {"state", "touchmove"}, {"x", "12"}, {"y", 3}}, Point{0, 0},
       "touchmove"},
      {"y missing", ValueMap{{"type", "Laser"}, {"id", "l"}, {"state", "touchend"}, {"x", 12}}, Point{0, 0},
       "touchend"},
      {"no position", ValueMap{{"type", "Laser"}, {"id", "l"}, {"state", "hover"}}, Point{0, 0}, "hover"},
      {"state missing", ValueMap{{"type", "Laser"}, {"id", "l"}, {"x", 1}, {"y", 1}}, std::nullopt},
      {"id missing", ValueMap{{"type", "Laser"}, {"state", "touchmove"}}, std::nullopt},
      {"type of a touch", ValueMap{{"type", "Touch"}, {"id", "l"}, {"state", "touchmove"}}, std::nullopt},
      {"type with a blank", ValueMap{{"type", "Laser "}, {"id", "l"}, {"state", "touchmove"}}, std::nullopt},
      {"not a dictionary", Value(3.5), std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto laser = ZPHLaser::from(c.data);
    ASSERT_EQ(laser != nullptr, c.position.has_value());
    if (!laser) continue;
    EXPECT_EQ(laser->position(), *c.position);
    EXPECT_EQ(laser->state(), c.state);
    EXPECT_EQ(laser->id(), "l");
  }
}

TEST(ZPHLaserTest, StateQueriesMatchExactly) {
  struct StateCase {
    const char* state;
    bool start, move, end;
  };
  const StateCase cases[] = {
      {"touchstart", true, false, false},
      {"touchmove", false, true, false},
      {"touchend", false, false, true},
      {"TouchMove", false, false, false},
      {"", false, false, false},
  };
  ZPHLaser laser;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.state);
    laser.setState(c.state);
    EXPECT_EQ(laser.isStart(), c.start);
    EXPECT_EQ(laser.isMove(), c.move);
    EXPECT_EQ(laser.isEnd(), c.end);
  }
}

}  // namespace
}  // namespace zephlo
