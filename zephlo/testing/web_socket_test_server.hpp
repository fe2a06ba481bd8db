// WebSocketTestServer: a small WebSocket server for tests, listening on 127.0.0.1
// on a port the OS picks, served by the main queue's event loop (tests pump it
// with MainQueue::runUntil). It records every upgrade request, can insist on a
// bearer token (answering 401 otherwise), records the binary messages it receives
// (decoded from CBOR), sends binary and text frames, can acknowledge every message
// by id, drops or closes connections on demand, and speaks TLS when given a
// certificate.
//
// OWNERSHIP: owned by the test. Destroying it closes the listener and every
// connection; their pending handlers keep their own state alive until they finish.
//
// THREADING: main queue only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zephlo/base/value.hpp"

namespace zephlo::testing {

// A PEM certificate chain and its private key, for the TLS listener.
struct TlsIdentity {
  std::string certificateChainPem;
  std::string privateKeyPem;
};

class WebSocketTestServer {
 public:
  struct Options {
    // When set, upgrades without "Authorization: Bearer <token>" get 401.
    std::optional<std::string> bearerToken;
    // Answer every received message that carries an unsigned "id" with {"ack": id}.
    bool autoAcknowledge = false;
    // Serve wss:// with this identity instead of ws://.
    std::optional<TlsIdentity> tls;
    // When false, upgrade requests are read and recorded but never answered, so
    // clients hang in their handshake (for timeout and back-off tests).
    bool answerUpgrades = true;

    static Options requiringToken(std::string token) {
      Options o;
      o.bearerToken = std::move(token);
      return o;
    }
    static Options acknowledging() {
      Options o;
      o.autoAcknowledge = true;
      return o;
    }
    static Options secure(TlsIdentity identity) {
      Options o;
      o.tls = std::move(identity);
      return o;
    }
    static Options silent() {
      Options o;
      o.answerUpgrades = false;
      return o;
    }
  };

  struct Upgrade {
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers;
    bool accepted = false;
    // The TLS server name (SNI) the client sent, if any.
    std::optional<std::string> serverName;
    // The header's value, matched case-insensitively.
    std::optional<std::string> header(std::string_view name) const;
  };

  struct Message {
    std::size_t connection = 0;  // index of the connection, in order of acceptance
    Bytes bytes;
    std::optional<Value> value;  // empty when the bytes are not a valid CBOR item
  };

  WebSocketTestServer();
  explicit WebSocketTestServer(Options options);
  ~WebSocketTestServer();
  WebSocketTestServer(const WebSocketTestServer&) = delete;
  WebSocketTestServer& operator=(const WebSocketTestServer&) = delete;

  std::uint16_t port() const;
  // "ws://127.0.0.1:<port><path>" (or wss://).
  std::string url(std::string_view path = "/") const;

  const std::vector<Upgrade>& upgrades() const;
  const std::vector<Message>& received() const;
  // Received messages that decoded to a map, in order.
  std::vector<ValueMap> receivedMaps() const;
  // Connections accepted so far, and those still open.
  std::size_t acceptedCount() const;
  std::size_t openCount() const;
  // Pings received, over all connections.
  std::size_t pingCount() const;
  // The close code of each client that closed its connection, in order.
  const std::vector<std::uint16_t>& closeCodes() const;

  void setAutoAcknowledge(bool on);
  // Stops reading from (or resumes) every open connection and those accepted later,
  // so that a client's writes back up.
  void setReading(bool on);

  // Sends to the most recently accepted open connection. Ignored when none is open.
  void sendBinary(Bytes message);
  void sendMap(const ValueMap& message);
  void sendText(std::string text);
  // Closes every open connection at the TCP level, without a close frame.
  void dropConnections();
  // Starts a close handshake with `code` on every open connection.
  void closeConnections(std::uint16_t code = 1000);

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace zephlo::testing
