// ConsoleSocket: the agent console's WebSocket (/console/ws). The console speaks
// JSON text messages:
//
//   console -> service  {"type": "watch", "session": id}        show this session ("" for none)
//                       {"type": "event", "session": id, "event": name, "data": {...}}
//                                                               an agent event for the stream socket
//   service -> console  {"type": "sessions", "sessions": [...]} every session with its figures
//                       {"type": "watching", "session": id}    the answer to "watch"
//                       {"type": "sent", "event": name, "delivered": n}
//                       {"type": "alive", "session": id, "data": {...}}
//                       {"type": "error", "message": text}
//
// and frames of the watched session as binary messages: a 4-byte big-endian
// length, that many bytes of JSON figures, then the JPEG. Frames are coalesced: a
// frame not yet written is replaced by a newer one, so a slow browser sees the
// latest picture rather than a growing backlog.
//
// OWNERSHIP: keeps itself alive through its pending operations; holds the hub
// shared, the hub holds it weakly.
// THREADING: main queue only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
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

class ConsoleSocket : public std::enable_shared_from_this<ConsoleSocket> {
 public:
  using Request = boost::beast::http::request<boost::beast::http::string_body>;

  static constexpr std::size_t kMaxMessageBytes = 1024 * 1024;
  static constexpr std::size_t kMaxQueuedMessages = 1024;

  ConsoleSocket(boost::asio::ip::tcp::socket socket, std::shared_ptr<ServiceHub> hub);
  ConsoleSocket(const ConsoleSocket&) = delete;
  ConsoleSocket& operator=(const ConsoleSocket&) = delete;

  void accept(Request request);

  void sendJson(const ValueMap& message);
  // Queues a frame of the watched session, replacing one not yet written.
  void sendFrame(const ValueMap& figures, const SharedBytes& jpeg);
  void close();

  const std::string& watching() const { return watching_; }
  bool isOpen() const { return open_; }

 private:
  struct Outgoing {
    bool binary = false;
    SharedBytes bytes;
  };

  void onAccept(boost::beast::error_code ec);
  void read();
  void onRead(boost::beast::error_code ec, std::size_t bytes);
  void handleText(std::string_view text);
  void sendError(std::string message);
  void writeNext();
  void onWrite(boost::beast::error_code ec, std::size_t bytes);
  void finish();

  boost::beast::websocket::stream<boost::beast::tcp_stream> ws_;
  boost::beast::flat_buffer buffer_;
  std::shared_ptr<ServiceHub> hub_;
  std::string watching_;
  std::deque<Outgoing> queue_;
  std::optional<Outgoing> pendingFrame_;
  Outgoing inFlight_;
  bool writing_ = false;
  bool open_ = false;
  bool closing_ = false;
  bool finished_ = false;
};

}  // namespace zephlo::service
