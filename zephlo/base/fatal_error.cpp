#include "zephlo/base/fatal_error.hpp"

#include <cstdio>
#include <cstdlib>

namespace zephlo {

void fatalError(std::string_view message) {
  std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace zephlo
