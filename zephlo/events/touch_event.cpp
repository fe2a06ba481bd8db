#include "zephlo/events/touch_event.hpp"

#include <cmath>

#include "zephlo/events/event_fields_internal.hpp"

namespace zephlo {

using events_internal::coordinate;
using events_internal::textForm;
using events_internal::typedDictionary;

std::shared_ptr<ZPHTouchEvent> ZPHTouchEvent::from(const Value& data) {
  const ValueMap* dictionary = typedDictionary(data, "Touch");
  if (!dictionary) return nullptr;
  return withDictionary(*dictionary);
}

std::shared_ptr<ZPHTouchEvent> ZPHTouchEvent::withDictionary(const ValueMap& dictionary) {
  const Value* id = dictionary.find("id");
  const Value* state = dictionary.find("state");
  if (!id || !state) return nullptr;
  const Value* timestamp = dictionary.find("timestamp");
  if (!timestamp) return nullptr;

  auto touch = std::make_shared<ZPHTouchEvent>();
  touch->setId(textForm(*id));
  touch->setState(textForm(*state));
  if (const std::string* text = timestamp->asString()) touch->setTimestamp(parseTimestamp(*text));
  auto x = coordinate(dictionary.find("x"));
  auto y = coordinate(dictionary.find("y"));
  if (x && y) touch->setPosition(Point{*x, *y});
  return touch;
}

std::optional<ZPHTouchEvent::Timestamp> ZPHTouchEvent::parseTimestamp(std::string_view text) {
  using namespace std::chrono;
  // 2024-05-01T13:45:07.123+0200
  static constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:dd.ddd+dddd";
  if (text.size() != kShape.size()) return std::nullopt;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    char c = text[i];
    bool fits = kShape[i] == 'd'   ? c >= '0' && c <= '9'
                : kShape[i] == '+' ? c == '+' || c == '-'
                                   : c == kShape[i];
    if (!fits) return std::nullopt;
  }
  auto number = [text](std::size_t at, std::size_t count) {
    int n = 0;
    for (std::size_t i = at; i < at + count; ++i) n = n * 10 + (text[i] - '0');
    return n;
  };
  year_month_day date{year(number(0, 4)), month(static_cast<unsigned>(number(5, 2))),
                      day(static_cast<unsigned>(number(8, 2)))};
  int hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
  int offsetHours = number(24, 2), offsetMinutes = number(26, 2);
  if (!date.ok() || hour > 23 || minute > 59 || second > 59 || offsetHours > 23 || offsetMinutes > 59)
    return std::nullopt;

  minutes offset = hours(offsetHours) + minutes(offsetMinutes);
  if (text[23] == '-') offset = -offset;
  auto local = sys_days(date) + hours(hour) + minutes(minute) + seconds(second) + milliseconds(number(20, 3));
  return Timestamp(local - offset);
}

double ZPHTouchEvent::duration(const ZPHTouchEvent* other) const {
  if (!other) return kNoDuration;
  auto mine = timestamp();
  auto theirs = other->timestamp();
  if (!mine || !theirs) return 0;
  return std::chrono::duration<double>(*mine - *theirs).count();
}

Point ZPHTouchEvent::delta(const ZPHTouchEvent* other) const {
  Point mine = position();
  Point theirs = other ? other->position() : Point{};
  return Point{mine.x - theirs.x, mine.y - theirs.y};
}

double ZPHTouchEvent::distance(const ZPHTouchEvent* other) const {
  Point d = delta(other);
  float dx = events_internal::narrow(d.x);
  float dy = events_internal::narrow(d.y);
  return static_cast<double>(std::sqrt(dx * dx + dy * dy));
}

Point ZPHTouchEvent::positionInFrame(const Rect& frame) const {
  Point mine = position();
  return Point{mine.x - frame.origin.x, mine.y - frame.origin.y};
}

std::shared_ptr<ZPHTouchEvent> ZPHTouchEvent::scaledCopy(const Size& factors) const {
  auto copy = std::make_shared<ZPHTouchEvent>();
  copy->setId(id());
  copy->setState(state());
  copy->setTimestamp(timestamp());
  Point mine = position();
  copy->setPosition(Point{mine.x * factors.width, mine.y * factors.height});
  return copy;
}

}  // namespace zephlo
