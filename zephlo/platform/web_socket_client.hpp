// WebSocketClient: one client connection (RFC 6455) over ws:// or wss://, opened
// from a prepared URLRequest (URL, headers, timeout; no subprotocols). It is the
// WebSocket client library the CBOR socket sits on.
//
// wss:// verifies the peer against the system store, or against the file named by
// SSL_CERT_FILE when it is set, and checks the host name (an IP address against
// the certificate's IP entries); SNI is sent for host names, never for addresses.
// The request's timeout bounds TCP connect, TLS and the WebSocket handshake
// together, on the main queue's clock.
//
// OWNERSHIP: the handle is owned by one user (unique_ptr). The connection behind
// it lives on in its own pending handlers, so releasing the handle is always safe:
// the connection is then closed, no callback reaches the user any more, and write
// completions still run once each.
//
// THREADING: main queue only. All callbacks run on the main queue.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "zephlo/platform/url_request.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo::platform {

struct WebSocketCallbacks {
  std::function<void()> onConnect;
  // Runs once per connect(), when the connection ends or could not be opened.
  // `error` is empty for a normal close (code 1000, or disconnect()).
  std::function<void(const std::optional<std::string>& error)> onDisconnect;
  std::function<void(std::span<const std::uint8_t> data)> onBinary;
  std::function<void(std::string_view text)> onText;
};

class WebSocketClient {
 public:
  static constexpr std::uint16_t kNormalClosure = 1000;

  explicit WebSocketClient(URLRequest request);
  ~WebSocketClient();
  WebSocketClient(const WebSocketClient&) = delete;
  WebSocketClient& operator=(const WebSocketClient&) = delete;

  void setCallbacks(WebSocketCallbacks callbacks);

  // Starts opening the connection; the outcome arrives as onConnect or onDisconnect.
  // Call once.
  void connect();
  // Closes with `closeCode`; onDisconnect follows once the close is done.
  void disconnect(std::uint16_t closeCode = kNormalClosure);
  bool isConnected() const;

  // Queues one binary message. `completion` runs exactly once: with true when the
  // message has been written, with false when it cannot be any more (write error,
  // connection closed or never opened). Writes go out one at a time, in order.
  void write(Bytes message, std::function<void(bool written)> completion = nullptr);
  // Sends a ping frame with an empty payload. Ignored when not connected or while
  // an earlier ping is still being written.
  void writePing();

  class Connection;

 private:
  std::shared_ptr<Connection> connection_;
};

}  // namespace zephlo::platform
