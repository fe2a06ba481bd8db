#include "zephlo/socket/cbor_codec.hpp"

#include <cbor.h>

#include <algorithm>
#include <cstring>
#include <unordered_set>
#include <utility>
#include <variant>

#include "zephlo/base/fatal_error.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::cbor {

namespace {

// ---------------------------------------------------------------------------
// Encoding: an exact size pass, then one write pass into a buffer of that size.

std::size_t headerSize(std::uint64_t n) {
  if (n < 24) return 1;
  if (n <= 0xff) return 2;
  if (n <= 0xffff) return 3;
  if (n <= 0xffffffffULL) return 5;
  return 9;
}

// Simple values 20..23 are false, true, null and undefined, and 24..31 are not
// well-formed, so none of them can travel as a SimpleValue.
bool encodableSimple(std::uint8_t v) { return v < 20 || v >= 32; }

// Size of the encoding of `value`, or empty when it cannot be encoded.
std::optional<std::size_t> encodedSize(const Value& value, std::size_t depth) {
  using T = Value::Type;
  switch (value.type()) {
    case T::Null:
    case T::Bool:
      return 1;
    case T::Int: {
      const auto i = *value.asInt();
      return headerSize(i >= 0 ? static_cast<std::uint64_t>(i) : ~static_cast<std::uint64_t>(i));
    }
    case T::UInt:
      return headerSize(*value.asUInt());
    case T::Float:
      return 5;
    case T::Double:
      return 9;
    case T::String:
      return headerSize(value.asString()->size()) + value.asString()->size();
    case T::Bytes:
      return headerSize(value.asBytes()->size()) + value.asBytes()->size();
    case T::Simple:
      if (!encodableSimple(value.asSimple()->value)) return std::nullopt;
      return value.asSimple()->value < 24 ? 1 : 2;
    case T::Item:
      return value.asItem()->encoded().size();
    case T::Array: {
      if (depth >= kMaxDepth) return std::nullopt;
      const auto& array = *value.asArray();
      std::size_t total = headerSize(array.size());
      for (const auto& element : array) {
        auto n = encodedSize(element, depth + 1);
        if (!n) return std::nullopt;
        total += *n;
      }
      return total;
    }
    case T::Map: {
      if (depth >= kMaxDepth) return std::nullopt;
      const auto& map = *value.asMap();
      std::size_t total = headerSize(map.size());
      for (const auto& [k, v] : map) {
        auto nk = encodedSize(k, depth + 1);
        auto nv = encodedSize(v, depth + 1);
        if (!nk || !nv) return std::nullopt;
        total += *nk + *nv;
      }
      return total;
    }
  }
  return std::nullopt;
}

// Writes into a buffer already sized by encodedSize; libcbor does the headers.
class Writer {
 public:
  explicit Writer(Bytes& out) : out_(out) {}

  void write(const Value& value) {
    using T = Value::Type;
    switch (value.type()) {
      case T::Null:
        advance(cbor_encode_null(at(), left()));
        return;
      case T::Bool:
        advance(cbor_encode_bool(*value.asBool(), at(), left()));
        return;
      case T::Int: {
        const auto i = *value.asInt();
        if (i >= 0)
          advance(cbor_encode_uint(static_cast<std::uint64_t>(i), at(), left()));
        else
          advance(cbor_encode_negint(~static_cast<std::uint64_t>(i), at(), left()));
        return;
      }
      case T::UInt:
        advance(cbor_encode_uint(*value.asUInt(), at(), left()));
        return;
      case T::Float:
        advance(cbor_encode_single(*value.asFloat(), at(), left()));
        return;
      case T::Double:
        advance(cbor_encode_double(*value.asDouble(), at(), left()));
        return;
      case T::String:
        text(*value.asString());
        return;
      case T::Bytes: {
        const auto& bytes = *value.asBytes();
        advance(cbor_encode_bytestring_start(bytes.size(), at(), left()));
        raw(bytes.data(), bytes.size());
        return;
      }
      case T::Simple: {
        const auto v = value.asSimple()->value;
        if (v < 24) {
          *at() = static_cast<std::uint8_t>(0xe0 | v);
          advance(1);
        } else {
          at()[0] = 0xf8;
          at()[1] = v;
          advance(2);
        }
        return;
      }
      case T::Item:
        raw(value.asItem()->encoded().data(), value.asItem()->encoded().size());
        return;
      case T::Array:
        advance(cbor_encode_array_start(value.asArray()->size(), at(), left()));
        for (const auto& element : *value.asArray()) write(element);
        return;
      case T::Map:
        map(*value.asMap());
        return;
    }
  }

  void mapHeader(std::size_t n) { advance(cbor_encode_map_start(n, at(), left())); }

  void map(const ValueMap& map) {
    mapHeader(map.size());
    for (const auto& [k, v] : map) {
      write(k);
      write(v);
    }
  }

  void text(std::string_view s) {
    advance(cbor_encode_string_start(s.size(), at(), left()));
    raw(reinterpret_cast<const std::uint8_t*>(s.data()), s.size());
  }

  void unsignedInt(std::uint64_t n) { advance(cbor_encode_uint(n, at(), left())); }

  bool complete() const { return ok_ && pos_ == out_.size(); }

 private:
  std::uint8_t* at() { return out_.data() + pos_; }
  std::size_t left() const { return out_.size() - pos_; }
  void advance(std::size_t n) {
    // libcbor reports 0 when the header did not fit; the size pass makes that a bug.
    if (n == 0) ok_ = false;
    pos_ += n;
  }
  void raw(const std::uint8_t* data, std::size_t n) {
    if (n == 0) return;
    if (n > left()) {
      ok_ = false;
      return;
    }
    std::memcpy(at(), data, n);
    pos_ += n;
  }

  Bytes& out_;
  std::size_t pos_ = 0;
  bool ok_ = true;
};

// ---------------------------------------------------------------------------
// Decoding: libcbor's streaming decoder reads one header at a time; the callbacks
// note what it saw and the loop below builds the native tree with its own stack.

struct StartArray {
  std::size_t count;
};
struct StartMap {
  std::size_t count;
};
struct StartIndefinite {
  enum Kind { Bytes, Text, Array, Map } kind;
};
struct Tag {
  std::uint64_t tag;
};
struct Break {};
struct Chunk {
  bool text;
  const std::uint8_t* data;
  std::size_t size;
};
using Event = std::variant<std::monostate, Value, StartArray, StartMap, StartIndefinite, Tag,
                           Break, Chunk>;

Event& eventOf(void* context) { return *static_cast<Event*>(context); }

const cbor_callbacks kCallbacks = [] {
  cbor_callbacks c = cbor_empty_callbacks;
  c.uint8 = [](void* ctx, std::uint8_t v) { eventOf(ctx) = Value(std::uint64_t{v}); };
  c.uint16 = [](void* ctx, std::uint16_t v) { eventOf(ctx) = Value(std::uint64_t{v}); };
  c.uint32 = [](void* ctx, std::uint32_t v) { eventOf(ctx) = Value(std::uint64_t{v}); };
  c.uint64 = [](void* ctx, std::uint64_t v) { eventOf(ctx) = Value(v); };
  // A negative integer keeps its raw payload: the peer's -1-n arrives as n.
  c.negint8 = [](void* ctx, std::uint8_t v) { eventOf(ctx) = Value(std::uint64_t{v}); };
  c.negint16 = [](void* ctx, std::uint16_t v) { eventOf(ctx) = Value(std::uint64_t{v}); };
  c.negint32 = [](void* ctx, std::uint32_t v) { eventOf(ctx) = Value(std::uint64_t{v}); };
  c.negint64 = [](void* ctx, std::uint64_t v) { eventOf(ctx) = Value(v); };
  c.byte_string = [](void* ctx, cbor_data data, std::size_t size) {
    eventOf(ctx) = Chunk{false, data, size};
  };
  c.string = [](void* ctx, cbor_data data, std::size_t size) {
    eventOf(ctx) = Chunk{true, data, size};
  };
  c.byte_string_start = [](void* ctx) { eventOf(ctx) = StartIndefinite{StartIndefinite::Bytes}; };
  c.string_start = [](void* ctx) { eventOf(ctx) = StartIndefinite{StartIndefinite::Text}; };
  c.array_start = [](void* ctx, std::size_t n) { eventOf(ctx) = StartArray{n}; };
  c.indef_array_start = [](void* ctx) { eventOf(ctx) = StartIndefinite{StartIndefinite::Array}; };
  c.map_start = [](void* ctx, std::size_t n) { eventOf(ctx) = StartMap{n}; };
  c.indef_map_start = [](void* ctx) { eventOf(ctx) = StartIndefinite{StartIndefinite::Map}; };
  c.tag = [](void* ctx, std::uint64_t t) { eventOf(ctx) = Tag{t}; };
  c.float2 = [](void* ctx, float f) { eventOf(ctx) = Value(f); };
  c.float4 = [](void* ctx, float f) { eventOf(ctx) = Value(f); };
  c.float8 = [](void* ctx, double d) { eventOf(ctx) = Value(d); };
  c.null = [](void* ctx) { eventOf(ctx) = Value(CborItem(CborItem::Kind::Null, 0, Bytes{0xf6})); };
  c.undefined = [](void* ctx) {
    eventOf(ctx) = Value(CborItem(CborItem::Kind::Undefined, 0, Bytes{0xf7}));
  };
  c.boolean = [](void* ctx, bool b) { eventOf(ctx) = Value(b); };
  c.indef_break = [](void* ctx) { eventOf(ctx) = Break{}; };
  return c;
}();

// How a map key reads in the fatal message: text and numbers as they are.
std::string keyDescription(const Value& key) {
  if (auto s = key.asString()) return *s;
  if (auto u = key.asUInt()) return std::to_string(*u);
  return key.debugString();
}

struct ValueHash {
  std::size_t operator()(const Value* v) const { return v->hash(); }
};
struct ValueEqual {
  bool operator()(const Value* a, const Value* b) const { return *a == *b; }
};

class Decoder {
 public:
  explicit Decoder(std::span<const std::uint8_t> input) : input_(input) {}

  DecodeResult run() {
    DecodeResult result;
    std::optional<Value> root;
    while (!root) {
      if (pos_ >= input_.size()) return result;  // truncated
      auto value = step();
      if (malformed_) return result;
      if (value) root = std::move(value);
    }
    if (pos_ != input_.size()) return result;  // one item per message
    if (fatal_) {
      result.fatalMessage = std::move(fatal_);
      return result;
    }
    result.value = std::move(root);
    return result;
  }

 private:
  enum class Kind { Array, Map, IndefArray, IndefMap, IndefBytes, IndefText, Tag };
  struct Frame {
    Kind kind;
    std::size_t expected = 0;  // items (map: keys and values) of a definite collection
    std::size_t start = 0;     // where a tag's encoding begins
    std::uint64_t tag = 0;
    std::vector<Value> items;  // collected items; a map's keys and values alternate
    std::string chunks;        // the pieces of an indefinite string
  };

  // Reads one header; returns the root value once the top-level item is complete.
  std::optional<Value> step() {
    const std::size_t start = pos_;
    const std::uint8_t initial = input_[pos_];
    Event event;
    // libcbor rejects simple values other than false, true, null and undefined;
    // the native form keeps them, so they are read here.
    if ((initial >= 0xe0 && initial <= 0xf3) || initial == 0xf8) {
      if (initial == 0xf8) {
        if (pos_ + 1 >= input_.size() || input_[pos_ + 1] < 32) return fail();
        event = Value(SimpleValue{input_[pos_ + 1]});
        pos_ += 2;
      } else {
        event = Value(SimpleValue{static_cast<std::uint8_t>(initial & 0x1f)});
        pos_ += 1;
      }
    } else {
      const auto r = cbor_stream_decode(input_.data() + pos_, input_.size() - pos_, &kCallbacks,
                                        &event);
      if (r.status != CBOR_DECODER_FINISHED || r.read == 0) return fail();
      pos_ += r.read;
    }
    return handle(std::move(event), start);
  }

  std::optional<Value> handle(Event&& event, std::size_t start) {
    const std::size_t left = input_.size() - pos_;
    if (auto* v = std::get_if<Value>(&event)) return complete(std::move(*v));
    if (auto* chunk = std::get_if<Chunk>(&event)) {
      if (!stack_.empty() && (stack_.back().kind == Kind::IndefBytes ||
                              stack_.back().kind == Kind::IndefText)) {
        // A chunk of an indefinite string must be a definite string of its kind.
        if (chunk->text != (stack_.back().kind == Kind::IndefText)) return fail();
        stack_.back().chunks.append(reinterpret_cast<const char*>(chunk->data), chunk->size);
        return std::nullopt;
      }
      if (chunk->text)
        return complete(Value(std::string(reinterpret_cast<const char*>(chunk->data), chunk->size)));
      return complete(Value(Bytes(chunk->data, chunk->data + chunk->size)));
    }
    if (std::holds_alternative<Break>(event)) return closeIndefinite();
    if (insideIndefiniteString()) return fail();
    if (auto* a = std::get_if<StartArray>(&event)) {
      // Every element takes at least one byte: a longer declaration cannot be true.
      if (a->count > left) return fail();
      // An empty collection is still a level of nesting, as the encoder counts it.
      if (a->count == 0) return stack_.size() >= kMaxDepth ? fail() : complete(Value(ValueArray{}));
      return push(Frame{Kind::Array, a->count, 0, 0, {}, {}});
    }
    if (auto* m = std::get_if<StartMap>(&event)) {
      if (m->count > left / 2) return fail();
      if (m->count == 0) return stack_.size() >= kMaxDepth ? fail() : complete(Value(ValueMap{}));
      return push(Frame{Kind::Map, m->count * 2, 0, 0, {}, {}});
    }
    if (auto* s = std::get_if<StartIndefinite>(&event)) {
      static constexpr Kind kKinds[] = {Kind::IndefBytes, Kind::IndefText, Kind::IndefArray,
                                        Kind::IndefMap};
      return push(Frame{kKinds[s->kind], 0, 0, 0, {}, {}});
    }
    if (auto* t = std::get_if<Tag>(&event)) return push(Frame{Kind::Tag, 1, start, t->tag, {}, {}});
    return fail();
  }

  bool insideIndefiniteString() const {
    return !stack_.empty() &&
           (stack_.back().kind == Kind::IndefBytes || stack_.back().kind == Kind::IndefText);
  }

  std::optional<Value> push(Frame frame) {
    if (stack_.size() >= kMaxDepth) return fail();
    stack_.push_back(std::move(frame));
    return std::nullopt;
  }

  std::optional<Value> closeIndefinite() {
    if (stack_.empty()) return fail();
    Frame& top = stack_.back();
    Value value;
    switch (top.kind) {
      case Kind::IndefBytes:
        value = Value(Bytes(top.chunks.begin(), top.chunks.end()));
        break;
      case Kind::IndefText:
        value = Value(std::move(top.chunks));
        break;
      case Kind::IndefArray:
        value = Value(ValueArray(std::make_move_iterator(top.items.begin()),
                                 std::make_move_iterator(top.items.end())));
        break;
      case Kind::IndefMap:
        if (top.items.size() % 2 != 0) return fail();  // a key without its value
        value = Value(makeMap(top.items));
        break;
      default:
        return fail();  // a break inside a definite collection
    }
    stack_.pop_back();
    return complete(std::move(value));
  }

  // Hands a finished value to its parent, closing every parent it completes.
  std::optional<Value> complete(Value value) {
    while (true) {
      if (stack_.empty()) return value;
      Frame& top = stack_.back();
      top.items.push_back(std::move(value));
      switch (top.kind) {
        case Kind::IndefArray:
        case Kind::IndefMap:
          return std::nullopt;
        case Kind::Array:
          if (top.items.size() < top.expected) return std::nullopt;
          value = Value(std::move(top.items));
          break;
        case Kind::Map:
          if (top.items.size() < top.expected) return std::nullopt;
          value = Value(makeMap(top.items));
          break;
        case Kind::Tag:
          value = Value(CborItem(CborItem::Kind::Tag, top.tag,
                                 Bytes(input_.begin() + static_cast<std::ptrdiff_t>(top.start),
                                       input_.begin() + static_cast<std::ptrdiff_t>(pos_))));
          break;
        default:
          return fail();
      }
      stack_.pop_back();
    }
  }

  // Builds a map from alternating keys and values. Keys that cannot be map keys
  // and keys that convert to the same value are fatal; the first such finding is
  // kept and reported once the whole message has proved well-formed.
  ValueMap makeMap(std::vector<Value>& items) {
    ValueMap map;
    const std::size_t n = items.size() / 2;
    map.reserve(n);
    std::unordered_set<const Value*, ValueHash, ValueEqual> seen;
    if (n > 8) seen.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
      Value& key = items[2 * i];
      if (key.isArray() || key.isMap()) {
        noteFatal("Map key cannot be an array or a map: " + key.debugString());
        continue;
      }
      bool duplicate = false;
      if (n > 8) {
        duplicate = !seen.insert(&key).second;
      } else {
        duplicate = map.findKey(key) != nullptr;
      }
      if (duplicate) {
        noteFatal("Duplicate values for key: '" + keyDescription(key) + "'");
        continue;
      }
      map.appendUnchecked(key, std::move(items[2 * i + 1]));
    }
    return map;
  }

  void noteFatal(std::string message) {
    if (!fatal_) fatal_ = std::move(message);
  }

  std::nullopt_t fail() {
    malformed_ = true;
    return std::nullopt;
  }

  std::span<const std::uint8_t> input_;
  std::size_t pos_ = 0;
  std::vector<Frame> stack_;
  bool malformed_ = false;
  std::optional<std::string> fatal_;
};

}  // namespace

std::optional<Bytes> encode(const Value& value) {
  auto size = encodedSize(value, 0);
  if (!size) return std::nullopt;
  Bytes out(*size);
  Writer writer(out);
  writer.write(value);
  if (!writer.complete()) return std::nullopt;
  return out;
}

std::optional<Bytes> encodeMessage(std::string_view event, const ValueMap& data, std::uint64_t id) {
  if (!data.isStringKeyed()) return std::nullopt;
  std::size_t dataSize = headerSize(data.size());
  for (const auto& [k, v] : data) {
    auto nk = encodedSize(k, 2);
    auto nv = encodedSize(v, 2);
    if (!nk || !nv) return std::nullopt;
    dataSize += *nk + *nv;
  }
  const auto textSize = [](std::string_view s) { return headerSize(s.size()) + s.size(); };
  const std::size_t size = headerSize(3) + textSize(wire::kEvent) + textSize(event) +
                           textSize(wire::kData) + dataSize + textSize(wire::kId) + headerSize(id);
  Bytes out(size);
  Writer body(out);
  body.mapHeader(3);
  body.text(wire::kEvent);
  body.text(event);
  body.text(wire::kData);
  body.map(data);
  body.text(wire::kId);
  body.unsignedInt(id);
  if (!body.complete()) return std::nullopt;
  return out;
}

DecodeResult decodeChecked(std::span<const std::uint8_t> bytes) { return Decoder(bytes).run(); }

std::optional<Value> decode(std::span<const std::uint8_t> bytes) {
  auto result = decodeChecked(bytes);
  if (result.fatalMessage) fatalError(*result.fatalMessage);
  return std::move(result.value);
}

}  // namespace zephlo::cbor
