#include "zephlo/events/redaction_selector_part.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <optional>

namespace zephlo {
namespace {

TEST(ZPHRedactionSelectorPartTest, IdIsReadFromTextOnly) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  const std::pair<Value, std::int64_t> cases[] = {
      {"42", 42}, {42, 0} /* a numeric id is ignored on purpose */, {42.0, 0}, {"12abc", 12}, {"abc", 0},
      {" -7", -7}, {"\t\n+8", 8}, {"-", 0}, {"- 7", 0}, {"", 0}, {"007", 7},
      {"9223372036854775807", kMax}, {"9223372036854775808", kMax},
      {"-9223372036854775808", kMin}, {"-99999999999999999999999", kMin},
  };
  for (const auto& [id, expected] : cases) {
    SCOPED_TRACE(id.debugString());
    auto part = ZPHRedactionSelectorPart::from(ValueMap{{"id", id}});
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(part->id(), expected);
  }
}

TEST(ZPHRedactionSelectorPartTest, OnlyDictionariesMakePartsAndWrongFieldsAreIgnoredOneByOne) {
  const ValueMap attrs{{"class", "secret"}, {"n", 1}};
  const struct {
    const char* name;
    Value data;
    std::optional<std::string> tag;
    std::int64_t id;
    std::optional<ValueMap> attrs;
  } cases[] = {
      {"complete", ValueMap{{"tag", "UILabel"}, {"id", "3"}, {"attrs", attrs}}, "UILabel", 3, attrs},
      {"empty dictionary", ValueMap{}, std::nullopt, 0, std::nullopt},
      {"tag a number, attrs an array", ValueMap{{"tag", 5}, {"id", "9"}, {"attrs", ValueArray{1}}}, std::nullopt, 9,
       std::nullopt},
      {"attrs kept with a wrong tag", ValueMap{{"tag", nullptr}, {"attrs", attrs}}, std::nullopt, 0, attrs},
      {"tag kept with a wrong id", ValueMap{{"tag", "div"}, {"id", ValueMap{}}}, "div", 0, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto part = ZPHRedactionSelectorPart::from(c.data);
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(part->tag(), c.tag);
    EXPECT_EQ(part->id(), c.id);
    ASSERT_EQ(part->attrs() != nullptr, c.attrs.has_value());
    if (c.attrs) {
      EXPECT_EQ(*part->attrs(), *c.attrs);
    }
  }
  for (const Value& v : {Value(), Value(1), Value("tag"), Value(ValueArray{})})
    EXPECT_EQ(ZPHRedactionSelectorPart::from(v), nullptr) << v.debugString();
}

}  // namespace
}  // namespace zephlo
