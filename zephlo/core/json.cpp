#include "zephlo/core/json.hpp"

#include "zephlo/base/utf8.hpp"

#include <boost/json/basic_parser_impl.hpp>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <system_error>
#include <utility>
#include <vector>

namespace zephlo::json {

namespace {

using boost::json::error_code;
using boost::json::string_view;

void setError(std::string* error, std::string message) {
  if (error) *error = std::move(message);
}

// Builds Values straight from the parser's events: containers collect their
// members on a stack and become one Value when they close. Numbers are converted
// from their own text so that doubles are correctly rounded and out-of-range
// values can be told apart from infinities.
class ValueBuilder {
 public:
  static constexpr std::size_t max_array_size = static_cast<std::size_t>(-1);
  static constexpr std::size_t max_object_size = static_cast<std::size_t>(-1);
  static constexpr std::size_t max_string_size = static_cast<std::size_t>(-1);
  static constexpr std::size_t max_key_size = static_cast<std::size_t>(-1);

  bool on_document_begin(error_code&) { return true; }
  bool on_document_end(error_code&) { return true; }

  bool on_array_begin(error_code&) { return true; }
  bool on_array_end(std::size_t n, error_code&) {
    ValueArray array;
    array.reserve(n);
    for (auto it = values_.end() - static_cast<std::ptrdiff_t>(n); it != values_.end(); ++it)
      array.push_back(std::move(*it));
    values_.resize(values_.size() - n);
    values_.emplace_back(std::move(array));
    return true;
  }

  bool on_object_begin(error_code&) { return true; }
  bool on_object_end(std::size_t n, error_code&) {
    ValueMap map;
    map.reserve(n);
    const auto firstValue = values_.end() - static_cast<std::ptrdiff_t>(n);
    const auto firstKey = keys_.end() - static_cast<std::ptrdiff_t>(n);
    for (std::size_t i = 0; i < n; ++i) {
      // `set` keeps the last value of a repeated key, in the key's first place.
      map.set(Value(std::move(firstKey[i])), std::move(firstValue[i]));
    }
    values_.resize(values_.size() - n);
    keys_.resize(keys_.size() - n);
    values_.emplace_back(std::move(map));
    return true;
  }

  bool on_string_part(string_view s, std::size_t, error_code&) {
    text_.append(s.data(), s.size());
    return true;
  }
  bool on_string(string_view s, std::size_t, error_code& ec) {
    text_.append(s.data(), s.size());
    push(Value(std::move(text_)), ec);
    text_.clear();
    return true;
  }
  bool on_key_part(string_view s, std::size_t, error_code&) {
    text_.append(s.data(), s.size());
    return true;
  }
  bool on_key(string_view s, std::size_t, error_code&) {
    text_.append(s.data(), s.size());
    keys_.push_back(std::move(text_));
    text_.clear();
    return true;
  }

  bool on_number_part(string_view s, error_code&) {
    number_.append(s.data(), s.size());
    return true;
  }
  bool on_int64(std::int64_t i, string_view, error_code& ec) {
    number_.clear();
    return push(Value(i), ec);
  }
  bool on_uint64(std::uint64_t u, string_view, error_code& ec) {
    number_.clear();
    return push(Value(u), ec);
  }
  bool on_double(double approximate, string_view s, error_code& ec) {
    number_.append(s.data(), s.size());
    double d = 0;
    const char* first = number_.data();
    const char* last = first + number_.size();
    // from_chars does not take the sign JSON allows in front.
    const bool negative = first != last && *first == '-';
    if (negative) ++first;
    const auto [end, err] = std::from_chars(first, last, d);
    number_.clear();
    if (err == std::errc::result_out_of_range) {
      // Too small rounds to zero; too large has no double.
      if (std::fabs(approximate) > 1.0 || std::isinf(approximate)) {
        outOfRange_ = true;
        ec = boost::json::error::exponent_overflow;
        return false;
      }
      d = 0.0;
    } else if (err != std::errc() || end != last || !std::isfinite(d)) {
      outOfRange_ = true;
      ec = boost::json::error::exponent_overflow;
      return false;
    }
    return push(Value(negative ? -d : d), ec);
  }
  bool on_bool(bool b, error_code& ec) { return push(Value(b), ec); }
  bool on_null(error_code& ec) { return push(Value(nullptr), ec); }
  bool on_comment_part(string_view, error_code&) { return true; }
  bool on_comment(string_view, error_code&) { return true; }

  bool outOfRange() const { return outOfRange_; }
  Value take() { return values_.empty() ? Value() : std::move(values_.back()); }

 private:
  bool push(Value v, error_code&) {
    values_.push_back(std::move(v));
    return true;
  }

  std::vector<Value> values_;
  std::vector<std::string> keys_;
  std::string text_;
  std::string number_;
  bool outOfRange_ = false;
};

bool isWhitespace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Writes JSON text, refusing what JSON cannot carry.
class Writer {
 public:
  bool write(const Value& v, std::size_t depth) {
    switch (v.type()) {
      case Value::Type::Null:
        out_ += "null";
        return true;
      case Value::Type::Bool:
        out_ += *v.asBool() ? "true" : "false";
        return true;
      case Value::Type::Int:
        return number(*v.asInt());
      case Value::Type::UInt:
        return number(*v.asUInt());
      case Value::Type::Float:
        return number(*v.asFloat());
      case Value::Type::Double:
        return number(*v.asDouble());
      case Value::Type::String:
        return string(*v.asString());
      case Value::Type::Array: {
        if (depth >= kMaxDepth) return fail("nesting deeper than 512 levels");
        out_ += '[';
        bool first = true;
        for (const auto& item : *v.asArray()) {
          if (!first) out_ += ',';
          first = false;
          if (!write(item, depth + 1)) return false;
        }
        out_ += ']';
        return true;
      }
      case Value::Type::Map: {
        if (depth >= kMaxDepth) return fail("nesting deeper than 512 levels");
        out_ += '{';
        bool first = true;
        for (const auto& [key, item] : *v.asMap()) {
          if (!key.isString()) return fail("a map key that is not text");
          if (!first) out_ += ',';
          first = false;
          if (!string(*key.asString())) return false;
          out_ += ':';
          if (!write(item, depth + 1)) return false;
        }
        out_ += '}';
        return true;
      }
      case Value::Type::Bytes:
        return fail("a byte buffer has no JSON form");
      case Value::Type::Simple:
      case Value::Type::Item:
        return fail("a CBOR item has no JSON form");
    }
    return fail("unknown value kind");
  }

  std::string take() { return std::move(out_); }
  const std::string& error() const { return error_; }

 private:
  bool fail(std::string message) {
    error_ = std::move(message);
    return false;
  }

  template <typename N>
  bool number(N n) {
    if constexpr (std::is_floating_point_v<N>) {
      if (!std::isfinite(n)) return fail("NaN and infinities have no JSON form");
    }
    char buf[64];
    const auto [end, err] = std::to_chars(buf, buf + sizeof buf, n);
    if (err != std::errc()) return fail("number not writable");
    out_.append(buf, end);
    return true;
  }

  bool string(const std::string& s) {
    if (!isValidUtf8(s)) return fail("text that is not UTF-8");
    static constexpr char kHex[] = "0123456789abcdef";
    out_ += '"';
    for (const char c : s) {
      const auto u = static_cast<unsigned char>(c);
      switch (c) {
        case '"': out_ += "\\\""; break;
        case '\\': out_ += "\\\\"; break;
        case '\b': out_ += "\\b"; break;
        case '\f': out_ += "\\f"; break;
        case '\n': out_ += "\\n"; break;
        case '\r': out_ += "\\r"; break;
        case '\t': out_ += "\\t"; break;
        default:
          if (u < 0x20) {
            out_ += "\\u00";
            out_ += kHex[u >> 4];
            out_ += kHex[u & 0xF];
          } else {
            out_ += c;
          }
      }
    }
    out_ += '"';
    return true;
  }

    std::string out_;
  std::string error_;
};

}  // namespace

std::optional<Value> parse(std::string_view text, std::string* error) {
  boost::json::parse_options options;
  options.max_depth = kMaxDepth;
  // Only an object or an array may stand at the top. Checked before parsing: a
  // handler that refuses a top-level scalar trips an assertion inside the parser.
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) {
    setError(error, "no JSON value");
    return std::nullopt;
  }
  if (text[first] != '{' && text[first] != '[') {
    setError(error, "the top-level value is not an object or an array");
    return std::nullopt;
  }
  boost::json::basic_parser<ValueBuilder> parser(options);
  error_code ec;
  const std::size_t used = parser.write_some(false, text.data(), text.size(), ec);
  if (ec) {
    if (parser.handler().outOfRange())
      setError(error, "a number outside the range of a double");
    else
      setError(error, ec.message() + " at offset " + std::to_string(used));
    return std::nullopt;
  }
  for (std::size_t i = used; i < text.size(); ++i) {
    if (!isWhitespace(text[i])) {
      setError(error, "extra data after the JSON value at offset " + std::to_string(i));
      return std::nullopt;
    }
  }
  return parser.handler().take();
}

std::optional<std::string> serialize(const Value& value, std::string* error) {
  if (!value.isMap() && !value.isArray()) {
    setError(error, "the top-level value is not a map or an array");
    return std::nullopt;
  }
  Writer writer;
  if (!writer.write(value, 0)) {
    setError(error, writer.error());
    return std::nullopt;
  }
  return writer.take();
}

}  // namespace zephlo::json
