// Point, Size and Rect: the plain geometry of agent events, in the coordinates the
// agent sent (no unit conversion). Values; any thread.
#pragma once

namespace zephlo {

struct Point {
  double x = 0;
  double y = 0;
  bool operator==(const Point&) const = default;
};

struct Size {
  double width = 0;
  double height = 0;
  bool operator==(const Size&) const = default;
};

struct Rect {
  Point origin;
  Size size;
  bool operator==(const Rect&) const = default;
};

}  // namespace zephlo
