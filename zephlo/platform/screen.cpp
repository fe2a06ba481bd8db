#include "zephlo/platform/screen.hpp"

namespace zephlo::platform {

namespace {
ScreenBounds& current() {
  static ScreenBounds bounds;
  return bounds;
}
}  // namespace

ScreenBounds Screen::main() { return current(); }
void Screen::setMain(const ScreenBounds& bounds) { current() = bounds; }

}  // namespace zephlo::platform
