// Screen: the main screen's size in points and its pixel scale, set by the host
// before the extension starts (and, for a desktop's screen, on the main queue
// when its size changes); read on the main queue.
#pragma once

namespace zephlo::platform {

struct ScreenBounds {
  double width = 390;   // points
  double height = 844;  // points
  double scale = 3;     // pixels per point
};

class Screen {
 public:
  static ScreenBounds main();
  static void setMain(const ScreenBounds& bounds);
};

}  // namespace zephlo::platform
