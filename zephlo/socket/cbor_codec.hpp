// The CBOR codec of the socket envelope, over libcbor: native Values to bytes and
// back. Used by CBORSocket on the client and by the reference service.
//
// Encoding writes one item tree in one pass into one exactly sized buffer, so a
// 30 KB image in a frame's data is copied once, into the message. Decoding reads
// one item and converts it to native values as it goes (the "toNative" rules:
// negative integers arrive as their raw payload, half and single floats as float,
// tags, null and undefined as CborItem keeping their encoding). Declared lengths
// are checked against the bytes left before anything is reserved, and nesting is
// bounded, so a few bytes from the network can never ask for gigabytes.
//
// THREADING: pure functions; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "zephlo/base/value.hpp"

namespace zephlo::cbor {

// Deepest nesting of arrays, maps and tags accepted by the decoder (and produced
// by the encoder).
inline constexpr std::size_t kMaxDepth = 64;

// Generic encoding of one value. Empty when the value cannot be encoded (nesting
// deeper than kMaxDepth).
std::optional<Bytes> encode(const Value& value);

// The message envelope {"event": event, "data": data, "id": id} in one buffer.
// Empty when `data` cannot be encoded or has a key that is not text.
std::optional<Bytes> encodeMessage(std::string_view event, const ValueMap& data, std::uint64_t id);

// One complete CBOR item (nothing may follow it) converted to native values.
// Empty for malformed or truncated input. A map whose keys convert to an array or
// a map, or two keys that convert to the same value, is fatal (fatalError): that
// is the socket's deliberate behaviour. Peers that must survive such input use
// decodeChecked.
std::optional<Value> decode(std::span<const std::uint8_t> bytes);

// What decode would do, without ever stopping the process: a value, nothing for
// malformed input, or the fatal message decode would stop with.
struct DecodeResult {
  std::optional<Value> value;
  std::optional<std::string> fatalMessage;
};
DecodeResult decodeChecked(std::span<const std::uint8_t> bytes);

}  // namespace zephlo::cbor
