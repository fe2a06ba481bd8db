// Checks that a method runs on the main queue's thread. On in every build that runs
// tests (ZEPHLO_DCHECK_ON); compiled out of release builds.
#pragma once

namespace zephlo::platform {
// Fatal unless the calling thread is the main queue's.
void checkOnMainQueue(const char* function);
}  // namespace zephlo::platform

#if defined(ZEPHLO_DCHECK_ON)
#define ZEPHLO_DCHECK_ON_MAIN_QUEUE() ::zephlo::platform::checkOnMainQueue(__func__)
#else
#define ZEPHLO_DCHECK_ON_MAIN_QUEUE() \
  do {                                \
  } while (false)
#endif
