// HttpConnection: one accepted TCP connection of the service while it speaks
// HTTP/1.1: REST requests (RestApi), the console's files, and the upgrades to the
// session sockets (<session>/control|stream/sockets/1/ws, bearer token checked)
// and to the console socket (/console/ws), to which it hands its TCP socket.
//
// Requests are read one at a time with a bounded body; a malformed request or an
// idle peer closes the connection.
//
// OWNERSHIP: keeps itself alive through its pending operations; holds the hub
// shared. The listener holds it weakly, to close it when the service stops.
// THREADING: main queue only.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

namespace zephlo::service {

class ServiceHub;
struct RestReply;

class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
 public:
  using Request = boost::beast::http::request<boost::beast::http::string_body>;

  static constexpr std::size_t kMaxBodyBytes = 1024 * 1024;
  static constexpr std::chrono::seconds kIdleTimeout{60};

  // `fallbackHost` ("127.0.0.1:8080") names this service in socket URLs when a
  // request has no Host header.
  HttpConnection(boost::asio::ip::tcp::socket socket, std::shared_ptr<ServiceHub> hub,
                 std::string fallbackHost);
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  void start();
  void close();
  bool isOpen() const { return open_; }

 private:
  void read();
  void onRead(boost::beast::error_code ec, std::size_t bytes);
  void upgrade(Request request);
  enum class AfterReply { KeepAlive, Close };
  void respond(const Request& request, RestReply reply, AfterReply after = AfterReply::KeepAlive);
  void onWrite(bool keepAlive, boost::beast::error_code ec, std::size_t bytes);

  boost::beast::tcp_stream stream_;
  boost::beast::flat_buffer buffer_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
  std::shared_ptr<boost::beast::http::response<boost::beast::http::string_body>> response_;
  std::shared_ptr<ServiceHub> hub_;
  std::string fallbackHost_;
  bool open_ = true;
};

}  // namespace zephlo::service
