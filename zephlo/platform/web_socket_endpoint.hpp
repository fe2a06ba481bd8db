// WebSocketEndpoint: where a ws://, wss://, http:// or https:// URL points, as the
// WebSocket client needs it: TLS or not, the host and port to dial, the Host field
// and the request target. URLs come from the service (session and notification
// addresses), so anything that could not travel in a request line or a Host
// field is refused rather than passed on.
//
// THREADING: a pure function; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zephlo::platform {

struct WebSocketEndpoint {
  bool secure = false;
  std::string host;        // without brackets for IPv6
  std::string port;        // digits, at most 65535; the scheme's default when the URL has none
  std::string hostHeader;  // host[:port] as the Host field wants it
  std::string target;      // path and query, starting with "/"

  // Empty for another scheme, no host, a port that is not a number up to 65535,
  // an unclosed IPv6 bracket, or a space or control character anywhere.
  static std::optional<WebSocketEndpoint> from(std::string_view url);

  bool operator==(const WebSocketEndpoint&) const = default;
};

}  // namespace zephlo::platform
