#include "zephlo/platform/web_socket_endpoint.hpp"

namespace zephlo::platform {

std::optional<WebSocketEndpoint> WebSocketEndpoint::from(std::string_view url) {
  // Nothing of this may reach a request line or a Host field.
  for (const char c : url)
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) return std::nullopt;
  WebSocketEndpoint e;
  const auto schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos) return std::nullopt;
  const auto scheme = url.substr(0, schemeEnd);
  if (scheme == "ws" || scheme == "http") {
    e.secure = false;
  } else if (scheme == "wss" || scheme == "https") {
    e.secure = true;
  } else {
    return std::nullopt;
  }
  auto rest = url.substr(schemeEnd + 3);
  const auto authorityEnd = rest.find_first_of("/?#");
  auto authority = rest.substr(0, authorityEnd);
  rest = authorityEnd == std::string_view::npos ? std::string_view() : rest.substr(authorityEnd);
  if (const auto at = authority.rfind('@'); at != std::string_view::npos)
    authority = authority.substr(at + 1);
  std::string_view host;
  std::string_view port;
  if (!authority.empty() && authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = authority.substr(1, close - 1);
    const auto after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return std::nullopt;
      port = after.substr(1);
    }
  } else {
    const auto colon = authority.rfind(':');
    host = authority.substr(0, colon);
    if (colon != std::string_view::npos) port = authority.substr(colon + 1);
  }
  // Brackets belong around an IPv6 address, never inside a host.
  if (host.empty() || host.find_first_of("[]") != std::string_view::npos) return std::nullopt;
  if (port.size() > 5) return std::nullopt;
  for (char c : port)
    if (c < '0' || c > '9') return std::nullopt;
  if (!port.empty() && std::stoul(std::string(port)) > 65535) return std::nullopt;
  e.host = std::string(host);
  e.port = port.empty() ? (e.secure ? "443" : "80") : std::string(port);
  const bool v6 = e.host.find(':') != std::string::npos;
  e.hostHeader = v6 ? "[" + e.host + "]" : e.host;
  if (!port.empty()) e.hostHeader += ":" + e.port;
  if (const auto hash = rest.find('#'); hash != std::string_view::npos) rest = rest.substr(0, hash);
  e.target = rest.empty() || rest.front() != '/' ? "/" + std::string(rest) : std::string(rest);
  return e;
}

}  // namespace zephlo::platform
