#include "zephlo/socket/value.hpp"

#include <gtest/gtest.h>

namespace zephlo {
namespace {

TEST(ValueTest, ConstructorsPickTheNativeKind) {
  EXPECT_EQ(Value().type(), Value::Type::Null);
  EXPECT_EQ(Value(true).type(), Value::Type::Bool);
  EXPECT_EQ(Value(-3).type(), Value::Type::Int);
  EXPECT_EQ(Value(3u).type(), Value::Type::UInt);
  EXPECT_EQ(Value(std::uint8_t{3}).type(), Value::Type::UInt);
  EXPECT_EQ(Value(1.5f).type(), Value::Type::Float);
  EXPECT_EQ(Value(1.5).type(), Value::Type::Double);
  EXPECT_EQ(Value("a").type(), Value::Type::String);
  EXPECT_EQ(Value(Bytes{1, 2}).type(), Value::Type::Bytes);
  EXPECT_EQ(Value(ValueArray{1, "x"}).type(), Value::Type::Array);
  EXPECT_EQ(Value(ValueMap{{"a", 1}}).type(), Value::Type::Map);
  EXPECT_EQ(Value(SimpleValue{16}).type(), Value::Type::Simple);
  EXPECT_FALSE(Value(true).isNumber());
  EXPECT_EQ(Value(-3).toDouble(), -3.0);
  EXPECT_EQ(Value("3").toDouble(), std::nullopt);
}

TEST(ValueTest, EqualityIsByKindAndContentAndMapsIgnoreOrder) {
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

TEST(ValueTest, CopiesShareBuffersWithoutCopyingThem) {
  Bytes big(30000, 0xAB);
  Value a(std::move(big));
  Value b = a;
  EXPECT_EQ(a.asBytes(), b.asBytes());
  EXPECT_EQ(a.sharedBytes().get(), b.sharedBytes().get());
}

}  // namespace
}  // namespace zephlo
