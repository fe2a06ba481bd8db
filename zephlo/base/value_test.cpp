#include "zephlo/base/value.hpp"

#include <gtest/gtest.h>

namespace zephlo {
namespace {

TEST(ValueTest, EqualityIsByKindAndContentMapsIgnoreOrderAndCopiesShareBuffers) {
  EXPECT_EQ(Value(1u), Value(1u));
  EXPECT_NE(Value(1u), Value(1));  // kinds differ
  EXPECT_NE(Value(1.0f), Value(1.0));
  EXPECT_EQ(Value(Bytes{1, 2}), Value(Bytes{1, 2}));
  ValueMap ab{{"a", 1}, {"b", ValueArray{Value(), "x"}}};
  ValueMap ba{{"b", ValueArray{Value(), "x"}}, {"a", 1}};
  EXPECT_EQ(Value(ab), Value(ba));
  EXPECT_EQ(Value(ab).hash(), Value(ba).hash());
  ba.set("a", 2);
  EXPECT_NE(Value(ab), Value(ba));

  // Copies share byte buffers rather than copying them.
  const Value bytes(Bytes(30000, 0xAB));
  const Value copy = bytes;
  EXPECT_EQ(bytes.sharedBytes().get(), copy.sharedBytes().get());
}

TEST(ValueTest, MapsKeepInsertionOrderAndAnyKeys) {
  ValueMap m;
  m.set("z", 1);
  m.set(Value(7u), "seven");
  m.set("a", 2);
  m.set("z", 3);  // replaces in place
  ASSERT_EQ(m.size(), 3u);
  EXPECT_EQ(m.begin()->first, Value("z"));
  EXPECT_EQ(m.begin()->second, Value(3));
  EXPECT_FALSE(m.isStringKeyed());
  EXPECT_EQ(*m.findKey(Value(7u)), Value("seven"));
  EXPECT_EQ(m.find("missing"), nullptr);
  EXPECT_TRUE(m.get("missing").isNull());
  EXPECT_TRUE(m.erase("a"));
  EXPECT_FALSE(m.contains("a"));
  m.erase("z");
  EXPECT_FALSE(m.isStringKeyed());
}

}  // namespace
}  // namespace zephlo
