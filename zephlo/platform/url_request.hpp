// URLRequest: a prepared request (URL, method, headers, body, timeout), the one
// form in which both the HTTP client and the WebSocket client take their work.
// A plain value; build it on any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zephlo::platform {

struct URLRequest {
  std::string url;
  std::string method = "GET";
  // Header fields in the order they were set; names compare case-insensitively.
  std::vector<std::pair<std::string, std::string>> headers;
  std::optional<std::string> body;
  // The platform's default request timeout.
  std::chrono::milliseconds timeout = std::chrono::seconds(60);

  // Sets a header, replacing one of the same name.
  void setHeader(std::string name, std::string value);
  // The header's value, if set.
  std::optional<std::string> header(std::string_view name) const;
};

}  // namespace zephlo::platform
