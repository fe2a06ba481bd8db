#include "zephlo/socket/cbor_codec.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>

namespace zephlo::cbor {
namespace {

Bytes hex(std::string_view h) {
  Bytes out;
  for (std::size_t i = 0; i + 1 < h.size(); i += 2)
    out.push_back(static_cast<std::uint8_t>(std::stoi(std::string(h.substr(i, 2)), nullptr, 16)));
  return out;
}

Value item(CborItem::Kind kind, std::uint64_t tag, std::string_view h) {
  return Value(CborItem(kind, tag, hex(h)));
}

ValueArray oneTo(int n) {
  ValueArray a;
  for (int i = 1; i <= n; ++i) a.emplace_back(static_cast<std::uint64_t>(i));
  return a;
}

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr double kInfD = std::numeric_limits<double>::infinity();

// RFC 8949 Appendix A, a vector for each way the receive path converts an item and
// each header size. `reencodes`: the native value encodes back to the same bytes.
TEST(CborCodecTest, DecodesTheRfcAppendixAVectorsAsNativeValues) {
  using K = CborItem::Kind;
  const Value nested = ValueArray{1u, ValueArray{2u, 3u}, ValueArray{4u, 5u}};
  const struct {
    const char* hex;
    Value expected;
    bool reencodes;
  } vectors[] = {
      {"00", Value(0u), true}, {"17", Value(23u), true}, {"1818", Value(24u), true}, {"1903e8", Value(1000u), true},
      {"1a000f4240", Value(1000000u), true}, {"1b000000e8d4a51000", Value(1000000000000ull), true},
      {"1bffffffffffffffff", Value(18446744073709551615ull), true},
      // Negative integers arrive as their raw payload n of -1-n.
      {"3bffffffffffffffff", Value(18446744073709551615ull), false}, {"20", Value(0u), false},
      {"3863", Value(99u), false}, {"3903e7", Value(999u), false},
      // Half and single floats become 32-bit floats, doubles stay doubles (libcbor
      // reads the half floats; the NaNs and signed zero follow).
      {"f93e00", Value(1.5f), false}, {"fa47c35000", Value(100000.0f), true},
      {"fa7f7fffff", Value(3.4028234663852886e+38f), true}, {"fa7f800000", Value(kInf), true},
      {"fb3ff199999999999a", Value(1.1), true}, {"fb7ff0000000000000", Value(kInfD), true},
      {"f4", Value(false), true}, {"f5", Value(true), true},
      {"f0", Value(SimpleValue{16}), true}, {"f8ff", Value(SimpleValue{255}), true},
      {"40", Value(Bytes{}), true}, {"4401020304", Value(Bytes{1, 2, 3, 4}), true},
      {"60", Value(""), true}, {"6449455446", Value("IETF"), true}, {"64f0908591", Value("\U00010151"), true},
      {"80", Value(ValueArray{}), true}, {"83010203", Value(oneTo(3)), true},
      {"8301820203820405", nested, true},
      {"98190102030405060708090a0b0c0d0e0f101112131415161718181819", Value(oneTo(25)), true},
      {"a0", Value(ValueMap{}), true}, {"a201020304", Value(ValueMap{{1u, 2u}, {3u, 4u}}), true},
      {"a26161016162820203", Value(ValueMap{{"a", 1u}, {"b", ValueArray{2u, 3u}}}), true},
      {"826161a161626163", Value(ValueArray{"a", ValueMap{{"b", "c"}}}), true},
      // Indefinite lengths decode to the definite value.
      {"5f42010243030405ff", Value(Bytes{1, 2, 3, 4, 5}), false},
      {"7f657374726561646d696e67ff", Value("streaming"), false}, {"9fff", Value(ValueArray{}), false},
      {"9f018202039f0405ffff", nested, false}, {"83019f0203ff820405", nested, false},
      {"bf61610161629f0203ffff", Value(ValueMap{{"a", 1u}, {"b", ValueArray{2u, 3u}}}), false},
      {"826161bf61626163ff", Value(ValueArray{"a", ValueMap{{"b", "c"}}}), false},
      // Bignums, tags, null and undefined stay unconverted items and encode as they came.
      {"c249010000000000000000", item(K::Tag, 2, "c249010000000000000000"), true},
      {"f6", item(K::Null, 0, "f6"), true}, {"f7", item(K::Undefined, 0, "f7"), true},
      {"c11a514b67b0", item(K::Tag, 1, "c11a514b67b0"), true},
      {"d818456449455446", item(K::Tag, 24, "d818456449455446"), true},
  };
  for (const auto& v : vectors) {
    SCOPED_TRACE(v.hex);
    const auto decoded = decode(hex(v.hex));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(*decoded, v.expected) << decoded->debugString();
    if (v.reencodes) {
      EXPECT_EQ(encode(*decoded), hex(v.hex));
    }
  }
}

TEST(CborCodecTest, NaNsAndSignedZeroKeepTheirKind) {
  const std::pair<const char*, Value::Type> nans[] = {
      {"f97e00", Value::Type::Float}, {"fa7fc00000", Value::Type::Float}, {"fb7ff8000000000000", Value::Type::Double}};
  for (const auto& [h, type] : nans) {
    SCOPED_TRACE(h);
    auto v = decode(hex(h));
    ASSERT_TRUE(v);
    EXPECT_EQ(v->type(), type);
    EXPECT_TRUE(std::isnan(*v->toDouble()));
  }
  auto negativeZero = decode(hex("f98000"));
  ASSERT_TRUE(negativeZero && negativeZero->asFloat());
  EXPECT_TRUE(std::signbit(*negativeZero->asFloat()));
}

// Keys that cannot be map keys are reported as fatal, which stops the process
// (shown in the socket's tests), but only in a message well-formed as a whole.
TEST(CborCodecTest, MalformedOrHostileInputDecodesToNothing) {
  std::string deepHex;
  for (std::size_t i = 0; i < kMaxDepth + 1; ++i) deepHex += "81";
  deepHex += "00";
  const struct {
    const char* what;
    std::string hex;
    std::optional<std::string> fatal = std::nullopt;
  } cases[] = {
      {"empty", ""}, {"truncated integer", "18"}, {"reserved additional information", "1c"},
      {"array declaring 2^64-1 elements", "9bffffffffffffffff00"},
      {"array declaring more elements than bytes left", "9a7fffffff00"},
      {"map declaring 2^64-1 entries", "bbffffffffffffffff0000"},
      {"map declaring more entries than bytes left", "a30000"},
      {"byte string longer than the message", "5affffffff00"}, {"text string longer than the message", "6461"},
      {"lone break", "ff"}, {"array missing an element", "8200"}, {"trailing bytes after the item", "0000"},
      {"integer inside an indefinite byte string", "5f01ff"},
      {"text chunk inside an indefinite byte string", "5f6161ff"}, {"nested indefinite string", "5f5fffff"},
      {"indefinite map with a key but no value", "bf01ff"}, {"unterminated indefinite array", "9f01"},
      {"break inside a definite array", "82ff"}, {"two-byte simple value below 32", "f818"},
      {"two-byte simple value cut short", "f8"}, {"tag without content", "c0"}, {"reserved initial byte", "fc"},
      {"nesting deeper than the limit", deepHex},
      {"an empty array beyond the limit", deepHex.substr(0, 2 * kMaxDepth) + "80"},
      {"an empty map beyond the limit", deepHex.substr(0, 2 * kMaxDepth) + "a0"},
      {"1 and -2 both convert to 1", "a201012102", "Duplicate values for key: '1'"},
      {"the same text key twice", "a2616101616102", "Duplicate values for key: 'a'"},
      {"an array as key", "a1810102", "Map key cannot be an array or a map: [1u]"},
      {"a map as key, nested", "81a1a0f5", "Map key cannot be an array or a map: {}"},
      {"a duplicate in a large map", "aa6130006131006132006133006134006135006136006137006138006130f5",
       "Duplicate values for key: '0'"},
      {"a duplicate key in a message that is not well-formed", "a201012102ff"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto result = decodeChecked(hex(c.hex));
    EXPECT_FALSE(result.value);
    EXPECT_EQ(result.fatalMessage, c.fatal);
  }
  // The limit itself is fine.
  std::string limitHex;
  for (std::size_t i = 0; i < kMaxDepth; ++i) limitHex += "81";
  EXPECT_TRUE(decode(hex(limitHex + "00")).has_value());
  // Whatever decodes at the limit encodes again.
  const std::string innerLimitHex = limitHex.substr(2);
  for (const std::string& atLimitHex : {limitHex + "00", innerLimitHex + "80", innerLimitHex + "a0"}) {
    SCOPED_TRACE(atLimitHex);
    const auto atLimit = decode(hex(atLimitHex));
    ASSERT_TRUE(atLimit.has_value());
    EXPECT_EQ(encode(*atLimit), hex(atLimitHex));
  }
}

// One byte on the wire may become a value of tens of bytes: what a message may
// cost is bounded by its size, with a floor that small messages never reach.
TEST(CborCodecTest, DecodingMemoryIsBoundedByTheMessageSize) {
  const auto emptyMaps = [](std::uint32_t n) {
    Bytes bytes{0x9a, static_cast<std::uint8_t>(n >> 24), static_cast<std::uint8_t>(n >> 16),
                static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)};
    bytes.resize(bytes.size() + n, 0xa0);
    return bytes;
  };
  EXPECT_FALSE(decode(emptyMaps(1u << 20)).has_value());
  const auto few = decode(emptyMaps(4096));
  ASSERT_TRUE(few && few->asArray());
  EXPECT_EQ(few->asArray()->size(), 4096u);
}

// Kinds only this side makes; the others re-encode among the vectors above.
TEST(CborCodecTest, EncodesEachNativeKind) {
  const struct {
    const char* what;
    Value value;
    const char* hex;
  } cases[] = {
      {"null", Value(), "f6"},
      {"negative int64", Value(std::int64_t{-5}), "24"},
      {"smallest int64", Value(std::numeric_limits<std::int64_t>::min()), "3b7fffffffffffffff"},
      {"positive int64", Value(std::int64_t{500}), "1901f4"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(encode(c.value), hex(c.hex));
  }
  // Simple values 20..31 have no encoding of their own.
  EXPECT_FALSE(encode(Value(SimpleValue{22})));
  EXPECT_FALSE(encode(Value(ValueArray{SimpleValue{31}})));
  Value deep = Value(0u);
  for (std::size_t i = 0; i < kMaxDepth + 1; ++i) deep = Value(ValueArray{deep});
  EXPECT_FALSE(encode(deep));
}

// Envelopes of every kind of payload travel in the socket's and the stream's tests.
TEST(CborCodecTest, MessageEnvelopeCarriesEventDataAndId) {
  EXPECT_EQ(encodeMessage("x", {}, 1), hex("a3656576656e74617864646174" "61a062696401"));
  // The payload's own keys must be text; nested maps may carry any key.
  EXPECT_FALSE(encodeMessage("x", ValueMap{{1u, 2u}}, 1));
  EXPECT_TRUE(encodeMessage("x", ValueMap{{"m", ValueMap{{1u, 2u}}}}, 1));
  EXPECT_FALSE(encodeMessage("x", ValueMap{{"bad", SimpleValue{21}}}, 1));
}

}  // namespace
}  // namespace zephlo::cbor
