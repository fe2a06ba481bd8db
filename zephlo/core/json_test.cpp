#include "zephlo/core/json.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace zephlo {
namespace {

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonTest, ParseRejectsWhatThePlatformRejects) {
  const std::pair<const char*, std::string> cases[] = {
      {"empty", ""}, {"top-level string", "\"text\""}, {"top-level number", "12"}, {"top-level null", "null"},
      {"number overflowing a double", "[1e999]"}, {"negative overflow", "{\"a\": -1e400}"},
      {"nesting of 513", nested(513)}, {"trailing comma", "[1,]"}, {"comment", "[1] // note"},
      {"extra data", "{} {}"}, {"invalid UTF-8", "[\"\xff\"]"}, {"unquoted key", "{a: 1}"},
      {"NaN literal", "[NaN]"}, {"truncated", "{\"a\": [1, 2"},
  };
  for (const auto& [name, text] : cases) {
    std::string error;
    EXPECT_FALSE(json::parse(text, &error).has_value()) << name;
    EXPECT_FALSE(error.empty()) << name;
  }
  EXPECT_TRUE(json::parse(nested(512)).has_value());  // the deepest accepted
}

TEST(JsonTest, ParsedNumbersKeepTheirKindAndObjectsTheirOrder) {
  const auto v = json::parse(
      "[0, -1, 9223372036854775807, 9223372036854775808, 18446744073709551615,"
      " 18446744073709551616, -9223372036854775809, 1.5, 1e2, 1e-400, 0.1]");
  ASSERT_TRUE(v);
  // 1e-400 underflows to zero; 0.1 is the correctly rounded double.
  const ValueArray expected{std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::max(),
                            std::uint64_t{9223372036854775808ull}, std::numeric_limits<std::uint64_t>::max(),
                            18446744073709551616.0, -9223372036854775809.0, 1.5, 100.0, 0.0, 0.1};
  EXPECT_EQ(*v, Value(expected));

  // Objects keep their order and the last of a repeated key.
  const auto o = json::parse(R"({"b": 1, "a": {"x": null, "y": [true, "s\u00e9\n"]}, "b": 2})");
  ASSERT_TRUE(o);
  const auto& m = *o->asMap();
  ASSERT_EQ(m.size(), 2u);
  EXPECT_EQ(*m.begin()->first.asString(), "b");
  EXPECT_EQ(m.get("b"), Value(std::int64_t{2}));
  EXPECT_EQ(m.get("a"), Value(ValueMap{{"x", nullptr}, {"y", ValueArray{true, "s\xc3\xa9\n"}}}));
}

TEST(JsonTest, SerializeRoundTrips) {
  const ValueMap v{
      {"text", "quote \" slash / back \\ tab \t ctl \x01 \xe2\x82\xac"},
      {"int", -42},
      {"uint", std::uint64_t{18446744073709551615ull}},
      {"double", 0.1},
      {"float", 0.25f},
      {"flag", false},
      {"none", nullptr},
      {"list", ValueArray{1, ValueMap{{"k", "v"}}, ValueArray{}}},
  };
  const auto text = json::serialize(v);
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("/"), std::string::npos);
  EXPECT_EQ(text->find("\\/"), std::string::npos);
  EXPECT_NE(text->find("\\u0001"), std::string::npos);
  const auto back = json::parse(*text);
  ASSERT_TRUE(back);
  // Floats come back as doubles; everything else as it went.
  ValueMap expected = v;
  expected.set("float", 0.25);
  EXPECT_EQ(*back, expected) << *text;
}

TEST(JsonTest, SerializeRefusesWhatJsonCannotCarry) {
  ValueMap nonTextKey;
  nonTextKey.set(Value(1), Value("one"));
  Value deep = ValueArray{};
  for (int i = 0; i < 600; ++i) deep = ValueArray{deep};
  const std::pair<const char*, Value> cases[] = {
      {"NaN", ValueArray{std::nan("")}}, {"infinity", ValueMap{{"x", std::numeric_limits<double>::infinity()}}},
      {"float infinity", ValueArray{-std::numeric_limits<float>::infinity()}},
      {"bytes", ValueMap{{"b", Bytes{1, 2, 3}}}}, {"non-text key", ValueArray{nonTextKey}},
      {"simple value", ValueArray{SimpleValue{16}}},
      {"CBOR item", ValueArray{CborItem(CborItem::Kind::Undefined, 0, Bytes{0xf7})}},
      {"invalid UTF-8", ValueArray{"\xc0\xaf"}}, {"lone surrogate", ValueArray{"\xed\xa0\x80"}},
      {"top-level text", Value("text")}, {"top-level null", Value()}, {"nesting of 601", deep},
  };
  for (const auto& [name, value] : cases) {
    std::string error;
    EXPECT_FALSE(json::serialize(value, &error).has_value()) << name;
    EXPECT_FALSE(error.empty()) << name;
  }
}

}  // namespace
}  // namespace zephlo
