#include "zephlo/events/touch_event.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

namespace zephlo {
namespace {

using namespace std::chrono;
using Timestamp = ZPHTouchEvent::Timestamp;

Timestamp at(int y, unsigned mo, unsigned d, int h, int mi, int s, int ms) {
  return sys_days(year(y) / month(mo) / day(d)) + hours(h) + minutes(mi) + seconds(s) + milliseconds(ms);
}

TEST(ZPHTouchEventTest, TimestampFormatIsReadStrictly) {
  const std::pair<const char*, std::optional<Timestamp>> cases[] = {
      {"2024-05-01T13:45:07.123+0200", at(2024, 5, 1, 11, 45, 7, 123)},
      {"2024-05-01T13:45:07.123-0130", at(2024, 5, 1, 15, 15, 7, 123)},
      {"2024-05-01T00:30:00.000+0100", at(2024, 4, 30, 23, 30, 0, 0)},
      {"2024-02-29T23:59:59.999+0000", at(2024, 2, 29, 23, 59, 59, 999)},
      {"1969-12-31T23:59:59.999+0000", at(1969, 12, 31, 23, 59, 59, 999)},
      {"9999-12-31T23:59:59.999-2359", at(10000, 1, 1, 23, 58, 59, 999)},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(ZPHTouchEvent::parseTimestamp(text), expected) << text;
  // Not a leap year, fields out of range, an offset with a colon or out of range, "Z", milliseconds missing or
  // short, a blank for the "T", trailing text, a short year, short and long fields, nothing at all.
  for (const char* text :
       {"2023-02-29T10:00:00.000+0000", "2024-13-01T10:00:00.000+0000", "2024-05-01T24:00:00.000+0000",
        "2024-05-01T13:60:00.000+0000", "2024-05-01T13:45:60.000+0000", "2024-05-01T13:45:07.123+02:00",
        "2024-05-01T13:45:07.123+0260", "2024-05-01T13:45:07.123Z", "2024-05-01T13:45:07+0200",
        "2024-05-01T13:45:07.12+0200", "2024-05-01 13:45:07.123+0200", "2024-05-01T13:45:07.123+0200 ",
        "24-05-01T13:45:07.123+0200", "2024-5-01T13:45:07.123+02000", ""})
    EXPECT_EQ(ZPHTouchEvent::parseTimestamp(text), std::nullopt) << text;
}

TEST(ZPHTouchEventTest, ParsesTouchDictionaries) {
  const auto stamp = at(2024, 5, 1, 11, 45, 7, 123);
  // A complete touch with `extra` applied and `dropped` left out.
  auto touch = [](std::initializer_list<ValueMap::Entry> extra, const char* dropped = "") {
    ValueMap data{{"type", "Touch"}, {"id", "t1"}, {"state", "touchstart"}, {"timestamp", "2024-05-01T13:45:07.123+0200"}};
    for (const auto& [k, v] : extra) data.set(k, v);
    data.erase(dropped);
    return Value(data);
  };
  const struct {
    const char* name;
    Value data;
    bool accepted;
    std::optional<Timestamp> timestamp;
    Point position;
  } cases[] = {
      {"full", touch({{"x", 100}, {"y", 250.5}}), true, stamp, {100, 250.5}},
      {"no position", touch({}), true, stamp, {0, 0}},
      {"y not a number", touch({{"x", 100}, {"y", nullptr}}), true, stamp, {0, 0}},
      {"timestamp not in the format", touch({{"timestamp", "yesterday"}, {"x", 1}, {"y", 2}}), true, std::nullopt,
       {1, 2}},
      {"timestamp not text", touch({{"timestamp", 1714563907}}), true, std::nullopt, {0, 0}},
      {"timestamp missing", touch({}, "timestamp"), false, {}, {}}, {"state missing", touch({}, "state"), false, {}, {}},
      {"id missing", touch({}, "id"), false, {}, {}}, {"not a dictionary", ValueArray{}, false, {}, {}},
      {"type in lower case", touch({{"type", "touch"}}), false, {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto event = ZPHTouchEvent::from(c.data);
    ASSERT_EQ(event != nullptr, c.accepted);
    if (!event) continue;
    EXPECT_EQ(event->id(), "t1");
    EXPECT_TRUE(event->isStart());
    EXPECT_EQ(event->timestamp(), c.timestamp);
    EXPECT_EQ(event->position(), c.position);
  }
}

std::shared_ptr<ZPHTouchEvent> touchAt(Point position, std::optional<Timestamp> timestamp = std::nullopt) {
  auto event = std::make_shared<ZPHTouchEvent>();
  event->setId("t");
  event->setState("touchmove");
  event->setPosition(position);
  event->setTimestamp(timestamp);
  return event;
}

TEST(ZPHTouchEventTest, GeometryAndScaledCopies) {
  auto origin = touchAt({0, 0}, at(2024, 5, 1, 10, 0, 0, 0));
  auto later = touchAt({3, 4}, at(2024, 5, 1, 10, 0, 1, 500));
  auto undated = touchAt({-6, 8});

  EXPECT_EQ(later->duration(nullptr), 1.7976931348623157e308);
  EXPECT_DOUBLE_EQ(origin->duration(later.get()), -1.5);
  EXPECT_EQ(undated->duration(later.get()), 0);
  EXPECT_EQ(later->delta(nullptr), (Point{3, 4}));
  EXPECT_EQ(later->delta(undated.get()), (Point{9, -4}));
  EXPECT_EQ(origin->distance(later.get()), 5);
  EXPECT_EQ(undated->distance(nullptr), 10);
  // Computed in 32-bit floats: the length of (0.1, 0) is float's 0.1.
  EXPECT_EQ(touchAt({0.1, 0})->distance(nullptr), static_cast<double>(0.1f));
  EXPECT_EQ(later->positionInFrame(Rect{{1, -2}, {1000, 1000}}), (Point{2, 6}));
  EXPECT_EQ(later->positionInFrame(Rect{{1, -2}, {0, 0}}), (Point{2, 6}));

  // A scaled copy keeps identity, state and time and leaves the original alone.
  later->setState("touchend");
  auto scaled = later->scaledCopy(Size{2, 0.5});
  EXPECT_EQ(scaled->position(), (Point{6, 2}));
  EXPECT_EQ(scaled->id(), "t");
  EXPECT_EQ(scaled->state(), "touchend");
  EXPECT_EQ(scaled->timestamp(), later->timestamp());
  EXPECT_EQ(later->position(), (Point{3, 4}));
}

}  // namespace
}  // namespace zephlo
