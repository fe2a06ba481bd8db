#include "zephlo/events/redaction_selector.hpp"

#include <gtest/gtest.h>

namespace zephlo {
namespace {

TEST(ZPHRedactionSelectorTest, OnlyArraysMakeSelectorsOfTheirDictionaries) {
  for (const Value& v : {Value(ValueMap{{"tag", "a"}}), Value("div"), Value(), Value(4)})
    EXPECT_EQ(ZPHRedactionSelector::from(v), nullptr) << v.debugString();

  auto empty = ZPHRedactionSelector::from(ValueArray{});
  ASSERT_NE(empty, nullptr);
  EXPECT_TRUE(empty->parts().empty());

  // Dictionary parts are kept in order, anything else skipped.
  auto selector = ZPHRedactionSelector::from(ValueArray{
      ValueMap{{"tag", "window"}}, 7, "text", ValueMap{{"id", "2"}}, ValueArray{ValueMap{}}, ValueMap{}});
  ASSERT_NE(selector, nullptr);
  auto parts = selector->parts();
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(parts[0]->tag(), "window");
  EXPECT_EQ(parts[1]->id(), 2);
  EXPECT_EQ(parts[2]->tag(), std::nullopt);
}

}  // namespace
}  // namespace zephlo
