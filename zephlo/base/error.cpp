#include "zephlo/base/error.hpp"

#include <utility>

namespace zephlo {

Error ZPHError(std::string message, std::int64_t code) {
  return Error{std::string(kZephloErrorDomain), code, std::move(message)};
}

}  // namespace zephlo
