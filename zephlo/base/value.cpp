#include "zephlo/base/value.hpp"

#include <cstdio>
#include <functional>

namespace zephlo {

Value::Value(SharedBytes b) : v_(b ? std::move(b) : std::make_shared<const Bytes>()) {}
Value::Value(ValueArray a) : v_(std::make_shared<const ValueArray>(std::move(a))) {}
Value::Value(ValueMap m) : v_(std::make_shared<const ValueMap>(std::move(m))) {}

bool Value::isNumber() const {
  switch (type()) {
    case Type::Int:
    case Type::UInt:
    case Type::Float:
    case Type::Double:
      return true;
    default:
      return false;
  }
}

const Bytes* Value::asBytes() const& {
  auto p = std::get_if<SharedBytes>(&v_);
  return p ? p->get() : nullptr;
}

SharedBytes Value::sharedBytes() const {
  auto p = std::get_if<SharedBytes>(&v_);
  return p ? *p : nullptr;
}

const ValueArray* Value::asArray() const& {
  auto p = std::get_if<std::shared_ptr<const ValueArray>>(&v_);
  return p ? p->get() : nullptr;
}

const ValueMap* Value::asMap() const& {
  auto p = std::get_if<std::shared_ptr<const ValueMap>>(&v_);
  return p ? p->get() : nullptr;
}

const CborItem* Value::asItem() const& {
  auto p = std::get_if<std::shared_ptr<const CborItem>>(&v_);
  return p ? p->get() : nullptr;
}

std::optional<std::string> Value::stringValue() const {
  if (auto s = asString()) return *s;
  return std::nullopt;
}

std::optional<std::uint64_t> Value::uintValue() const {
  if (auto u = asUInt()) return *u;
  return std::nullopt;
}

std::optional<double> Value::toDouble() const {
  switch (type()) {
    case Type::Int:
      return static_cast<double>(*asInt());
    case Type::UInt:
      return static_cast<double>(*asUInt());
    case Type::Float:
      return static_cast<double>(*asFloat());
    case Type::Double:
      return *asDouble();
    default:
      return std::nullopt;
  }
}

bool Value::operator==(const Value& other) const {
  if (type() != other.type()) return false;
  switch (type()) {
    case Type::Null:
      return true;
    case Type::Bytes:
      return *asBytes() == *other.asBytes();
    case Type::Array:
      return *asArray() == *other.asArray();
    case Type::Map:
      return *asMap() == *other.asMap();
    case Type::Item:
      return *asItem() == *other.asItem();
    default:
      return v_ == other.v_;
  }
}

namespace {
std::size_t combine(std::size_t seed, std::size_t h) {
  return seed ^ (h + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}
std::size_t hashBytes(const Bytes& b) {
  return std::hash<std::string_view>{}(
      std::string_view(reinterpret_cast<const char*>(b.data()), b.size()));
}
}  // namespace

std::size_t Value::hash() const {
  std::size_t h = static_cast<std::size_t>(type());
  switch (type()) {
    case Type::Null:
      return h;
    case Type::Bool:
      return combine(h, *asBool());
    case Type::Int:
      return combine(h, std::hash<std::int64_t>{}(*asInt()));
    case Type::UInt:
      return combine(h, std::hash<std::uint64_t>{}(*asUInt()));
    case Type::Float:
      return combine(h, std::hash<float>{}(*asFloat()));
    case Type::Double:
      return combine(h, std::hash<double>{}(*asDouble()));
    case Type::String:
      return combine(h, std::hash<std::string>{}(*asString()));
    case Type::Bytes:
      return combine(h, hashBytes(*asBytes()));
    case Type::Array:
      for (const auto& v : *asArray()) h = combine(h, v.hash());
      return h;
    case Type::Map: {
      // Order-independent, like equality.
      std::size_t sum = 0;
      for (const auto& [k, v] : *asMap()) sum += combine(k.hash(), v.hash());
      return combine(h, sum);
    }
    case Type::Simple:
      return combine(h, asSimple()->value);
    case Type::Item:
      return combine(h, hashBytes(asItem()->encoded()));
  }
  return h;
}

std::string Value::debugString() const {
  char buf[64];
  switch (type()) {
    case Type::Null:
      return "null";
    case Type::Bool:
      return *asBool() ? "true" : "false";
    case Type::Int:
      return std::to_string(*asInt());
    case Type::UInt:
      return std::to_string(*asUInt()) + "u";
    case Type::Float:
      std::snprintf(buf, sizeof buf, "%gf", static_cast<double>(*asFloat()));
      return buf;
    case Type::Double:
      std::snprintf(buf, sizeof buf, "%g", *asDouble());
      return buf;
    case Type::String:
      return "\"" + *asString() + "\"";
    case Type::Bytes:
      return "bytes(" + std::to_string(asBytes()->size()) + ")";
    case Type::Array: {
      std::string s = "[";
      for (const auto& v : *asArray()) s += (s.size() > 1 ? ", " : "") + v.debugString();
      return s + "]";
    }
    case Type::Map: {
      std::string s = "{";
      for (const auto& [k, v] : *asMap())
        s += (s.size() > 1 ? ", " : "") + k.debugString() + ": " + v.debugString();
      return s + "}";
    }
    case Type::Simple:
      return "simple(" + std::to_string(asSimple()->value) + ")";
    case Type::Item:
      return asItem()->kind() == CborItem::Kind::Tag ? "tag(" + std::to_string(asItem()->tag()) + ")"
                                                     : "cbor-item";
  }
  return "?";
}

ValueMap::ValueMap(std::initializer_list<Entry> entries) {
  entries_.reserve(entries.size());
  for (const auto& [k, v] : entries) set(k, v);
}

const Value* ValueMap::findKey(const Value& key) const {
  for (const auto& [k, v] : entries_)
    if (k == key) return &v;
  return nullptr;
}

const Value* ValueMap::find(std::string_view key) const {
  for (const auto& [k, v] : entries_)
    if (auto s = k.asString(); s && *s == key) return &v;
  return nullptr;
}

Value ValueMap::get(std::string_view key) const {
  auto v = find(key);
  return v ? *v : Value();
}

void ValueMap::set(Value key, Value value) {
  for (auto& [k, v] : entries_) {
    if (k == key) {
      v = std::move(value);
      return;
    }
  }
  entries_.emplace_back(std::move(key), std::move(value));
}

bool ValueMap::erase(std::string_view key) {
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (auto s = it->first.asString(); s && *s == key) {
      entries_.erase(it);
      return true;
    }
  }
  return false;
}

void ValueMap::appendUnchecked(Value key, Value value) {
  entries_.emplace_back(std::move(key), std::move(value));
}

bool ValueMap::isStringKeyed() const {
  for (const auto& [k, v] : entries_)
    if (!k.isString()) return false;
  return true;
}

bool ValueMap::operator==(const ValueMap& other) const {
  if (size() != other.size()) return false;
  for (const auto& [k, v] : entries_) {
    auto o = other.findKey(k);
    if (!o || !(*o == v)) return false;
  }
  return true;
}

}  // namespace zephlo
