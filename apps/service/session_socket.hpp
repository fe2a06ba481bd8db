// SessionSocket: the service's end of one control or stream socket of a session,
// after the HTTP upgrade was accepted (the bearer token was checked before).
//
// Every binary message is a CBOR map in the {"event", "data", "id"} envelope; each
// one that carries an unsigned "id" is acknowledged with {"ack": id}. "filter"
// replaces the set of events this socket wants; until the first filter it is sent
// nothing but acknowledgements. Other events on a stream socket go to the hub
// (frames, "alive" replies); a control socket has nothing else to say. Messages
// that do not decode, or are not maps, are ignored: the network never stops the
// service.
//
// Outgoing messages wait in a queue with one write in flight. A peer that stops
// reading while the queue grows past kMaxQueuedBytes is closed rather than
// buffered for ever.
//
// OWNERSHIP: keeps itself alive through its pending operations (shared_from_this),
// holds the hub shared; the hub holds it weakly.
// THREADING: main queue only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "zephlo/base/value.hpp"

namespace zephlo::service {

class ServiceHub;

enum class SocketKind { Control, Stream };

class SessionSocket : public std::enable_shared_from_this<SessionSocket> {
 public:
  using Request = boost::beast::http::request<boost::beast::http::string_body>;

  static constexpr std::size_t kMaxMessageBytes = 16 * 1024 * 1024;
  static constexpr std::size_t kMaxQueuedBytes = 32 * 1024 * 1024;

  SessionSocket(boost::asio::ip::tcp::socket socket, std::shared_ptr<ServiceHub> hub,
                std::string sessionId, SocketKind kind);
  SessionSocket(const SessionSocket&) = delete;
  SessionSocket& operator=(const SessionSocket&) = delete;

  // Completes the upgrade of `request` and starts reading.
  void accept(Request request);

  // Sends an event when this socket subscribed to it; whether it was queued.
  bool send(std::string_view event, const ValueMap& data);
  // Starts the close handshake (the client sees a drop and reconnects).
  void close();

  const std::string& sessionId() const { return sessionId_; }
  SocketKind kind() const { return kind_; }
  bool isOpen() const { return open_; }
  bool wants(std::string_view event) const { return filter_.count(std::string(event)) > 0; }
  // Client messages received whose acknowledgement has not been written yet: the
  // message lag the client sees, less what is on the wire.
  std::uint64_t unacknowledged() const;

 private:
  void onAccept(boost::beast::error_code ec);
  void read();
  void onRead(boost::beast::error_code ec, std::size_t bytes);
  void handleMessage(std::span<const std::uint8_t> bytes);
  void enqueue(Bytes message, std::uint64_t ackId);
  void writeNext();
  void onWrite(boost::beast::error_code ec, std::size_t bytes);
  void startClose();
  void onClose(boost::beast::error_code ec);
  void finish();

  struct Outgoing {
    SharedBytes bytes;
    std::uint64_t ackId = 0;  // the id this message acknowledges, or 0
  };

  boost::beast::websocket::stream<boost::beast::tcp_stream> ws_;
  boost::beast::flat_buffer buffer_;
  std::shared_ptr<ServiceHub> hub_;
  std::string sessionId_;
  SocketKind kind_;
  std::set<std::string> filter_;
  std::deque<Outgoing> queue_;
  Outgoing inFlight_;
  std::size_t queuedBytes_ = 0;
  bool writing_ = false;
  bool open_ = false;
  bool closing_ = false;
  bool finished_ = false;
  std::uint64_t nextId_ = 0;
  std::uint64_t lastReceivedId_ = 0;
  std::uint64_t lastAcknowledgedId_ = 0;
};

}  // namespace zephlo::service
