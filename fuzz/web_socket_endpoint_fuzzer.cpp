// The WebSocket client's URL parser, on addresses as the service could send them.
// Whatever it accepts must be dialable and fit a request line and a Host field:
// a host, a port of up to five digits within range, a target that starts with
// "/" and carries no fragment, and no space or control character anywhere. The
// URL rebuilt from what it found must parse to the same endpoint.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zephlo/platform/web_socket_endpoint.hpp"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

bool printable(std::string_view text) {
  for (const char c : text)
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using zephlo::platform::WebSocketEndpoint;
  const std::string_view url(reinterpret_cast<const char*>(data), size);
  const auto endpoint = WebSocketEndpoint::from(url);
  if (!endpoint) return 0;
  require(!endpoint->host.empty());
  require(!endpoint->port.empty() && endpoint->port.size() <= 5 &&
          endpoint->port.find_first_not_of("0123456789") == std::string::npos &&
          std::stoul(endpoint->port) <= 65535);
  require(!endpoint->target.empty() && endpoint->target.front() == '/');
  require(endpoint->target.find('#') == std::string::npos);
  require(printable(endpoint->host) && printable(endpoint->hostHeader) && printable(endpoint->target));
  require(endpoint->hostHeader.find(endpoint->host) != std::string::npos);

  const std::string rebuilt =
      std::string(endpoint->secure ? "wss" : "ws") + "://" + endpoint->hostHeader + endpoint->target;
  const auto again = WebSocketEndpoint::from(rebuilt);
  require(again && *again == *endpoint);
  return 0;
}
