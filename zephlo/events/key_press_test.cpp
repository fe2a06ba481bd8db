#include "zephlo/events/key_press.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace zephlo {
namespace {

struct KeyPressCase {
  const char* name;
  Value data;
  // Empty when the parser must reject the data.
  std::optional<std::array<std::string, 3>> expected;
};

TEST(ZPHKeyPressTest, ParsesOnlyCompleteKeyPressDictionaries) {
  const KeyPressCase cases[] = {
      {"all three keys as text", ValueMap{{"type", "KeyPress"}, {"key", "a"}, {"code", "KeyA"}, {"state", "down"}},
       std::array<std::string, 3>{"a", "KeyA", "down"}},
      {"values of any kind are accepted",
       ValueMap{{"type", "KeyPress"}, {"key", 13}, {"code", true}, {"state", ValueArray{1, "x"}}},
       std::array<std::string, 3>{"13", "true", "[1, \"x\"]"}},
      {"a null value is present", ValueMap{{"type", "KeyPress"}, {"key", nullptr}, {"code", "c"}, {"state", "s"}},
       std::array<std::string, 3>{"null", "c", "s"}},
      {"state missing", ValueMap{{"type", "KeyPress"}, {"key", "a"}, {"code", "KeyA"}}, std::nullopt},
      {"code missing", ValueMap{{"type", "KeyPress"}, {"key", "a"}, {"state", "down"}}, std::nullopt},
      {"key missing", ValueMap{{"type", "KeyPress"}, {"code", "KeyA"}, {"state", "down"}}, std::nullopt},
      {"type in lower case", ValueMap{{"type", "keypress"}, {"key", "a"}, {"code", "KeyA"}, {"state", "down"}},
       std::nullopt},
      {"type of another event", ValueMap{{"type", "Laser"}, {"key", "a"}, {"code", "KeyA"}, {"state", "down"}},
       std::nullopt},
      {"type not text", ValueMap{{"type", 1}, {"key", "a"}, {"code", "KeyA"}, {"state", "down"}}, std::nullopt},
      {"type missing", ValueMap{{"key", "a"}, {"code", "KeyA"}, {"state", "down"}}, std::nullopt},
      {"not a dictionary", ValueArray{"KeyPress", "a"}, std::nullopt},
      {"text", "KeyPress", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto press = ZPHKeyPress::from(c.data);
    ASSERT_EQ(press != nullptr, c.expected.has_value());
    if (!press) continue;
    EXPECT_EQ(press->key(), (*c.expected)[0]);
    EXPECT_EQ(press->code(), (*c.expected)[1]);
    EXPECT_EQ(press->state(), (*c.expected)[2]);
  }
}

}  // namespace
}  // namespace zephlo
