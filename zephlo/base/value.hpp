// Value: the one native value type of the system. Socket payloads decoded from
// CBOR, JSON bodies of the service and the maps sent back are all Values.
//
// A Value is immutable and cheap to copy: text is held inline, while byte buffers,
// arrays and maps are shared (a 30 KB JPEG travels from the encoder to the socket
// without a copy). Maps keep their entries in insertion order and keep whatever
// keys they are given; decoded CBOR may carry non-text keys, so code that needs a
// string-keyed map asks `isStringKeyed()`.
//
// THREADING: a Value may be read from any thread; nothing in it changes.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace zephlo {

using Bytes = std::vector<std::uint8_t>;
using SharedBytes = std::shared_ptr<const Bytes>;

class Value;
class ValueMap;
using ValueArray = std::vector<Value>;

// A CBOR simple value (major type 7, other than false, true, null and undefined).
struct SimpleValue {
  std::uint8_t value = 0;
  bool operator==(const SimpleValue&) const = default;
};

// A CBOR item the native form has no kind for (a tag, null, undefined), kept as
// its own encoding so that it can be sent back unchanged.
class CborItem {
 public:
  enum class Kind { Tag, Null, Undefined, Other };
  CborItem(Kind kind, std::uint64_t tag, Bytes encoded)
      : kind_(kind), tag_(tag), encoded_(std::move(encoded)) {}

  Kind kind() const { return kind_; }
  // The tag number when kind() is Tag, else 0.
  std::uint64_t tag() const { return tag_; }
  // The item's complete CBOR encoding (for a tag: the tag and its content).
  const Bytes& encoded() const { return encoded_; }

  bool operator==(const CborItem&) const = default;

 private:
  Kind kind_;
  std::uint64_t tag_;
  Bytes encoded_;
};

class Value {
 public:
  enum class Type { Null, Bool, Int, UInt, Float, Double, String, Bytes, Array, Map, Simple, Item };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  template <std::integral I>
    requires(!std::same_as<I, bool> && !std::same_as<I, char>)
  Value(I i) {
    if constexpr (std::is_signed_v<I>)
      v_ = static_cast<std::int64_t>(i);
    else
      v_ = static_cast<std::uint64_t>(i);
  }
  Value(float f) : v_(f) {}
  Value(double d) : v_(d) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(Bytes b) : v_(std::make_shared<const Bytes>(std::move(b))) {}
  Value(SharedBytes b);
  Value(ValueArray a);
  Value(ValueMap m);
  Value(SimpleValue s) : v_(s) {}
  Value(CborItem item) : v_(std::make_shared<const CborItem>(std::move(item))) {}

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::Null; }
  bool isString() const { return type() == Type::String; }
  bool isMap() const { return type() == Type::Map; }
  bool isArray() const { return type() == Type::Array; }
  // Any of the four number kinds; booleans are not numbers.
  bool isNumber() const;

  // Typed access: a pointer to the content, or null when the value is another kind.
  // The pointer lives as long as this Value, so these are not callable on a
  // temporary (such as the result of ValueMap::get): bind the Value to a name, or
  // use ValueMap::find, which points into the map.
  const bool* asBool() const& { return std::get_if<bool>(&v_); }
  const std::int64_t* asInt() const& { return std::get_if<std::int64_t>(&v_); }
  const std::uint64_t* asUInt() const& { return std::get_if<std::uint64_t>(&v_); }
  const float* asFloat() const& { return std::get_if<float>(&v_); }
  const double* asDouble() const& { return std::get_if<double>(&v_); }
  const std::string* asString() const& { return std::get_if<std::string>(&v_); }
  const Bytes* asBytes() const&;
  const ValueArray* asArray() const&;
  const ValueMap* asMap() const&;
  const SimpleValue* asSimple() const& { return std::get_if<SimpleValue>(&v_); }
  const CborItem* asItem() const&;
  const bool* asBool() const&& = delete;
  const std::int64_t* asInt() const&& = delete;
  const std::uint64_t* asUInt() const&& = delete;
  const float* asFloat() const&& = delete;
  const double* asDouble() const&& = delete;
  const std::string* asString() const&& = delete;
  const Bytes* asBytes() const&& = delete;
  const ValueArray* asArray() const&& = delete;
  const ValueMap* asMap() const&& = delete;
  const SimpleValue* asSimple() const&& = delete;
  const CborItem* asItem() const&& = delete;
  // The shared buffer itself: safe on a temporary.
  SharedBytes sharedBytes() const;
  // Copies of the content, safe on a temporary.
  std::optional<std::string> stringValue() const;
  std::optional<std::uint64_t> uintValue() const;

  // The value of any number kind as a double; empty for everything else.
  std::optional<double> toDouble() const;

  // Same kind and same content (maps compare regardless of entry order).
  bool operator==(const Value& other) const;
  std::size_t hash() const;

  // A short readable form, for test failures and logs.
  std::string debugString() const;

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, float, double, std::string,
               SharedBytes, std::shared_ptr<const ValueArray>, std::shared_ptr<const ValueMap>,
               SimpleValue, std::shared_ptr<const CborItem>>
      v_;
};

// An insertion-ordered map of Values. Lookups are linear, which suits the small
// maps of this protocol; `set` replaces the value of a key already present.
class ValueMap {
 public:
  using Entry = std::pair<Value, Value>;
  using const_iterator = std::vector<Entry>::const_iterator;

  ValueMap() = default;
  ValueMap(std::initializer_list<Entry> entries);

  const Value* findKey(const Value& key) const;
  const Value* find(std::string_view key) const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  // The value under `key`, or null when absent.
  Value get(std::string_view key) const;

  void set(Value key, Value value);
  bool erase(std::string_view key);
  void clear() { entries_.clear(); }
  // Appends without looking for the key: for decoders that check duplicates themselves.
  void appendUnchecked(Value key, Value value);
  void reserve(std::size_t n) { entries_.reserve(n); }

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

  // True when every key is text.
  bool isStringKeyed() const;

  bool operator==(const ValueMap& other) const;

 private:
  std::vector<Entry> entries_;
};

}  // namespace zephlo
