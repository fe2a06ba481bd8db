// HttpClient: the URL-loading session of the platform layer, over libcurl's multi
// interface on a thread of its own (the HTTP thread).
//
// Each transfer is independent, as if it had its own ephemeral session: a fresh
// connection, no cookies, no cache, no stored credentials and no TLS session
// reuse between transfers. TLS peers are verified against the system store, or
// against the file named by SSL_CERT_FILE when that is set. Redirects are
// followed and compressed bodies are decoded. The request's timeout bounds the
// connect and any stretch of time in which no byte moves.
//
// Ownership: `shared()` is the process-wide client, created on first use and shut
// down at exit (or earlier by the host with `shutdownShared()`). Tests may own
// private clients.
//
// THREADING: `start` may be called on any thread; it hands the request over
// through a locked queue and wakes the HTTP thread. The HTTP thread owns every
// curl handle and calls each completion there, exactly once, unless the client is
// shut down first: transfers still in flight at shutdown are abandoned and their
// completions destroyed without being called.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zephlo/platform/url_request.hpp"

namespace zephlo::platform {

// What the server answered with: the final URL (after redirects), the status
// and the header fields of the final response in the order received.
struct HTTPResponse {
  std::string url;
  int statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headers;

  // The value of header `name` (case-insensitive), if present.
  std::optional<std::string> header(std::string_view name) const;
};

// A transfer that produced no usable response. The codes are the phone
// platform's URL-loading codes (see zephlo/base/error.hpp).
struct TransportError {
  std::int64_t code = -1;
  std::string description;
};

struct HttpResult {
  // Set when the transfer failed; then `response` may still hold a partial
  // response (headers received before the failure) or be null.
  std::optional<TransportError> error;
  std::shared_ptr<const HTTPResponse> response;
  std::string body;
};

class HttpClient {
 public:
  using Completion = std::function<void(HttpResult)>;

  // The process-wide client.
  static HttpClient& shared();
  // Stops the shared client and joins its thread, if it was ever created. Any
  // thread except the HTTP thread. Safe to call more than once.
  static void shutdownShared();

  HttpClient();
  // Shuts down (see `shutdown`).
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // Starts a transfer; `completion` runs on the HTTP thread. After shutdown the
  // request is dropped. Any thread.
  void start(URLRequest request, Completion completion);

  // Abandons every transfer in flight and joins the HTTP thread. Not from the
  // HTTP thread itself.
  void shutdown();

  // True on this client's HTTP thread.
  bool isCurrent() const;

 private:
  struct Core;
  std::unique_ptr<Core> core_;
};

}  // namespace zephlo::platform
