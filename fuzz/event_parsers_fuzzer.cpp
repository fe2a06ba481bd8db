// Feeds arbitrary values to the agent-event and redaction-selector parsers. The
// first byte chooses how the value is made: decoded from CBOR as the stream socket
// would, or built directly from the bytes with keys drawn mostly from the events'
// own vocabulary, which reaches the parsers' deeper branches quickly.
//
// Beyond not crashing, it checks that an accepted event really was a dictionary of
// its type, that touch distances are never negative, and that the selector id
// reader agrees with strtoll.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zephlo/events/drawing.hpp"
#include "zephlo/events/key_press.hpp"
#include "zephlo/events/laser.hpp"
#include "zephlo/events/redaction_selector.hpp"
#include "zephlo/events/touch_event.hpp"
#include "zephlo/socket/cbor_codec.hpp"

namespace {

using namespace zephlo;

constexpr const char* kVocabulary[] = {
    "type", "KeyPress", "Drawing", "Laser", "Touch", "touch", "id", "state", "key", "code",
    "image", "mime_type", "x", "y", "width", "height", "timestamp", "touchstart", "touchmove", "touchend",
    "tag", "attrs", "2024-05-01T13:45:07.123+0200", " -7", "42", "9223372036854775808",
};

std::string text(FuzzedDataProvider& fdp) {
  if (fdp.ConsumeBool()) return fdp.PickValueInArray(kVocabulary);
  return fdp.ConsumeRandomLengthString(40);
}

Value build(FuzzedDataProvider& fdp, int depth) {
  switch (fdp.ConsumeIntegralInRange(0, depth > 4 ? 8 : 10)) {
    case 0: return Value();
    case 1: return Value(fdp.ConsumeBool());
    case 2: return Value(fdp.ConsumeIntegral<std::int64_t>());
    case 3: return Value(fdp.ConsumeIntegral<std::uint64_t>());
    case 4: return Value(fdp.ConsumeFloatingPoint<float>());
    case 5: return Value(fdp.ConsumeFloatingPoint<double>());
    case 6: return Value(fdp.ConsumeBytes<std::uint8_t>(fdp.ConsumeIntegralInRange(0, 16)));
    case 7:
    case 8: return Value(text(fdp));
    case 9: {
      ValueArray array;
      for (int n = fdp.ConsumeIntegralInRange(0, 6); n > 0 && fdp.remaining_bytes(); --n)
        array.push_back(build(fdp, depth + 1));
      return Value(std::move(array));
    }
    default: {
      ValueMap map;
      for (int n = fdp.ConsumeIntegralInRange(0, 8); n > 0 && fdp.remaining_bytes(); --n) {
        Value key = fdp.ConsumeIntegralInRange(0, 15) ? Value(text(fdp)) : build(fdp, depth + 1);
        map.set(std::move(key), build(fdp, depth + 1));
      }
      return Value(std::move(map));
    }
  }
}

void require(bool condition) {
  if (!condition) __builtin_trap();
}

bool isDictionaryOfType(const Value& data, const char* type) {
  const ValueMap* map = data.asMap();
  return map && map->find("type") && map->find("type")->asString() && *map->find("type")->asString() == type;
}

void exercise(const Value& data) {
  if (auto press = ZPHKeyPress::from(data)) require(isDictionaryOfType(data, "KeyPress"));
  if (auto drawing = ZPHDrawing::from(data)) require(isDictionaryOfType(data, "Drawing"));
  if (auto laser = ZPHLaser::from(data)) {
    require(isDictionaryOfType(data, "Laser"));
    (void)laser->isMove();
  }
  if (auto touch = ZPHTouchEvent::from(data)) {
    require(isDictionaryOfType(data, "Touch"));
    auto scaled = touch->scaledCopy(Size{2, 0.5});
    double distance = touch->distance(scaled.get());
    require(std::isnan(distance) || distance >= 0);
    (void)touch->duration(scaled.get());
    (void)touch->positionInFrame(Rect{{1, 2}, {3, 4}});
  }
  if (auto selector = ZPHRedactionSelector::from(data)) require(data.isArray());
  if (auto part = ZPHRedactionSelectorPart::from(data)) require(data.isMap());
  if (const std::string* s = data.asString()) {
    (void)ZPHTouchEvent::parseTimestamp(*s);
    if (s->find('\0') == std::string::npos)
      require(ZPHRedactionSelectorPart::idFromText(*s) == std::strtoll(s->c_str(), nullptr, 10));
  }
  // Arrays are walked too, as the session walks its "redaction_selectors".
  if (const ValueArray* array = data.asArray())
    for (const Value& element : *array) exercise(element);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  if (data[0] & 1) {
    auto decoded = cbor::decodeChecked(std::span<const std::uint8_t>(data + 1, size - 1));
    if (decoded.value) exercise(*decoded.value);
    return 0;
  }
  FuzzedDataProvider fdp(data + 1, size - 1);
  exercise(build(fdp, 0));
  return 0;
}
