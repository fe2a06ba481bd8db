// HttpCall: one HTTP/1.1 request to the service on the main queue's event loop,
// for tests and the load program (the SDK's own HTTP client runs curl on its own
// thread; these callers want the reply on the main queue, next to the server).
//
// THREADING: main queue only; the completion runs there.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace zephlo::testing {

struct HttpResult {
  bool completed = false;  // false: no response (connection failed)
  int status = 0;
  std::string contentType;
  std::string body;
};

struct HttpCallRequest {
  std::string host = "127.0.0.1";
  std::uint16_t port = 0;
  std::string method = "GET";
  std::string target = "/";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
};

// Sends the request on a fresh connection and calls `done` once with the result.
void httpCall(HttpCallRequest request, std::function<void(HttpResult)> done);

}  // namespace zephlo::testing
