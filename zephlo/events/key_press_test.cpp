#include "zephlo/events/key_press.hpp"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>

namespace zephlo {
namespace {

// A complete key press with `changes` applied and `dropped` left out.
Value press(std::initializer_list<ValueMap::Entry> changes, const char* dropped = "") {
  ValueMap m{{"type", "KeyPress"}, {"key", "a"}, {"code", "KeyA"}, {"state", "down"}};
  for (const auto& [k, v] : changes) m.set(k, v);
  m.erase(dropped);
  return m;
}

TEST(ZPHKeyPressTest, ParsesOnlyCompleteKeyPressDictionaries) {
  using Fields = std::array<std::string, 3>;
  const std::tuple<const char*, Value, std::optional<Fields>> cases[] = {  // no fields: rejected
      {"all three keys as text", press({}), Fields{"a", "KeyA", "down"}},
      {"values of any kind", press({{"key", 13}, {"code", true}, {"state", ValueArray{1, "x"}}}),
       Fields{"13", "true", "[1, \"x\"]"}},
      {"a null value is present", press({{"key", nullptr}}), Fields{"null", "KeyA", "down"}},
      {"state missing", press({}, "state"), std::nullopt}, {"code missing", press({}, "code"), std::nullopt},
      {"key missing", press({}, "key"), std::nullopt}, {"type missing", press({}, "type"), std::nullopt},
      {"type of another event", press({{"type", "Laser"}}), std::nullopt},
      {"type not text", press({{"type", 1}}), std::nullopt},
      {"not a dictionary", ValueArray{"KeyPress", "a"}, std::nullopt}, {"text", "KeyPress", std::nullopt},
  };
  for (const auto& [name, data, expected] : cases) {
    SCOPED_TRACE(name);
    auto parsed = ZPHKeyPress::from(data);
    ASSERT_EQ(parsed != nullptr, expected.has_value());
    if (parsed) {
      EXPECT_EQ((Fields{parsed->key(), parsed->code(), parsed->state()}), *expected);
    }
  }
}

}  // namespace
}  // namespace zephlo
