#include "zephlo/platform/url_request.hpp"

#include <strings.h>

namespace zephlo::platform {

namespace {
bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}
}  // namespace

void URLRequest::setHeader(std::string name, std::string value) {
  for (auto& [n, v] : headers) {
    if (sameName(n, name)) {
      v = std::move(value);
      return;
    }
  }
  headers.emplace_back(std::move(name), std::move(value));
}

std::optional<std::string> URLRequest::header(std::string_view name) const {
  for (const auto& [n, v] : headers)
    if (sameName(n, name)) return v;
  return std::nullopt;
}

}  // namespace zephlo::platform
