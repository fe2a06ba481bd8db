#include "zephlo/events/redaction_selector.hpp"

#include <gtest/gtest.h>

namespace zephlo {
namespace {

TEST(ZPHRedactionSelectorTest, OnlyArraysMakeSelectors) {
  for (const Value& v : {Value(ValueMap{{"tag", "a"}}), Value("div"), Value(), Value(4)})
    EXPECT_EQ(ZPHRedactionSelector::from(v), nullptr) << v.debugString();

  auto empty = ZPHRedactionSelector::from(ValueArray{});
  ASSERT_NE(empty, nullptr);
  EXPECT_TRUE(empty->parts().empty());
}

TEST(ZPHRedactionSelectorTest, KeepsDictionaryPartsInOrderAndSkipsTheRest) {
  auto selector = ZPHRedactionSelector::from(ValueArray{
      ValueMap{{"tag", "window"}}, 7, "text", ValueMap{{"id", "2"}}, ValueArray{ValueMap{}}, ValueMap{}});
  ASSERT_NE(selector, nullptr);
  auto parts = selector->parts();
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(parts[0]->tag(), "window");
  EXPECT_EQ(parts[1]->id(), 2);
  EXPECT_EQ(parts[2]->tag(), std::nullopt);
}

// The session's "redaction_selectors": each element becomes a selector unless it
// is not an array.
TEST(ZPHRedactionSelectorTest, SessionSelectorListKeepsArraysOnly) {
  ValueArray field{ValueArray{ValueMap{{"tag", "UITextField"}, {"id", "1"}}}, 3, ValueArray{}};
  std::vector<std::shared_ptr<ZPHRedactionSelector>> selectors;
  for (const auto& element : field)
    if (auto selector = ZPHRedactionSelector::from(element)) selectors.push_back(selector);
  ASSERT_EQ(selectors.size(), 2u);
  ASSERT_EQ(selectors[0]->parts().size(), 1u);
  EXPECT_EQ(selectors[0]->parts()[0]->tag(), "UITextField");
  EXPECT_EQ(selectors[0]->parts()[0]->id(), 1);
  EXPECT_TRUE(selectors[1]->parts().empty());
}

}  // namespace
}  // namespace zephlo
