// Runs a piece of work through the installed library's main queue and reads a
// value back: enough to prove headers, library and package fit together.
#include <cstdio>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/base/value.hpp"

int main() {
  auto& queue = zephlo::platform::MainQueue::shared();
  zephlo::ValueMap map{{"frames", 3}};
  int seen = 0;
  queue.async([&] {
    seen = static_cast<int>(*map.find("frames")->asInt());
    queue.stop();
  });
  queue.run();
  std::printf("consumer saw %d frames\n", seen);
  return seen == 3 ? 0 : 1;
}
