#include "zephlo/testing/http_test_server.hpp"

#include <strings.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace zephlo::testing {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

namespace {
bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// The TCP stream under a connection, sharing the connection's lifetime.
std::shared_ptr<beast::tcp_stream> lowest(const std::shared_ptr<beast::tcp_stream>& stream) { return stream; }
std::shared_ptr<beast::tcp_stream> lowest(const std::shared_ptr<TlsStream>& stream) {
  return {stream, &beast::get_lowest_layer(*stream)};
}
}  // namespace

HttpTestServer::Response HttpTestServer::Response::json(int status, std::string body) {
  Response r;
  r.status = status;
  r.headers.emplace_back("Content-Type", "application/json");
  r.body = std::move(body);
  return r;
}

std::optional<std::string> HttpTestServer::Request::header(std::string_view name) const {
  for (const auto& [n, v] : headers)
    if (sameName(n, name)) return v;
  return std::nullopt;
}

struct HttpTestServer::Impl : std::enable_shared_from_this<HttpTestServer::Impl> {
  asio::io_context io;
  tcp::acceptor acceptor{io};
  std::thread thread;
  std::uint16_t port = 0;
  std::unique_ptr<ssl::context> tls;  // set for an https server

  mutable std::mutex mutex;
  mutable std::condition_variable recorded;
  std::map<std::pair<std::string, std::string>, Response> routes;
  std::vector<Request> record;
  std::size_t connections = 0;
  // Server thread only: open connections, closed at shutdown.
  std::vector<std::weak_ptr<beast::tcp_stream>> open;
  // Server thread only: connections whose request is held unanswered.
  std::vector<std::shared_ptr<beast::tcp_stream>> held;

  Response responseFor(const Request& request) {
    std::lock_guard lock(mutex);
    record.push_back(request);
    recorded.notify_all();
    const auto path = request.target.substr(0, request.target.find('?'));
    if (auto it = routes.find({request.method, path}); it != routes.end()) return it->second;
    Response notFound;
    notFound.status = 404;
    return notFound;
  }

  void accept() {
    acceptor.async_accept([self = shared_from_this()](beast::error_code ec, tcp::socket socket) {
      if (ec) return;  // closed at shutdown
      {
        std::lock_guard lock(self->mutex);
        ++self->connections;
      }
      if (self->tls) {
        auto stream = std::make_shared<TlsStream>(std::move(socket), *self->tls);
        self->open.push_back(lowest(stream));
        // A client that refuses the certificate ends here, before any request.
        stream->async_handshake(ssl::stream_base::server, [self, stream](beast::error_code ec) {
          if (!ec) self->read(stream, std::make_shared<beast::flat_buffer>());
        });
      } else {
        auto stream = std::make_shared<beast::tcp_stream>(std::move(socket));
        self->open.push_back(stream);
        self->read(stream, std::make_shared<beast::flat_buffer>());
      }
      self->accept();
    });
  }

  template <class Stream>
  void read(std::shared_ptr<Stream> stream, std::shared_ptr<beast::flat_buffer> buffer) {
    auto message = std::make_shared<http::request<http::string_body>>();
    http::async_read(*stream, *buffer, *message,
                     [self = shared_from_this(), stream, buffer, message](beast::error_code ec, std::size_t) {
                       if (ec) return;  // the client closed, or shutdown
                       self->onRequest(stream, buffer, *message);
                     });
  }

  template <class Stream>
  void onRequest(std::shared_ptr<Stream> stream, std::shared_ptr<beast::flat_buffer> buffer,
                 const http::request<http::string_body>& message) {
    Request request;
    request.method = std::string(message.method_string());
    request.target = std::string(message.target());
    for (const auto& field : message)
      request.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    request.body = message.body();
    const Response canned = responseFor(request);
    if (canned.hold) {
      held.push_back(lowest(stream));
      return;
    }

    auto reply = std::make_shared<http::response<http::string_body>>();
    reply->version(11);
    reply->result(static_cast<unsigned>(canned.status));
    for (const auto& [name, value] : canned.headers) reply->set(name, value);
    reply->body() = canned.body;
    reply->keep_alive(message.keep_alive());
    reply->prepare_payload();
    http::async_write(*stream, *reply,
                      [self = shared_from_this(), stream, buffer, reply](beast::error_code ec, std::size_t) {
                        if (ec) return;
                        if (!reply->keep_alive()) {
                          beast::error_code ignored;
                          beast::get_lowest_layer(*stream).socket().shutdown(tcp::socket::shutdown_send, ignored);
                          return;
                        }
                        self->read(stream, buffer);
                      });
  }
};

HttpTestServer::HttpTestServer(std::optional<TlsIdentity> tls) : impl_(std::make_shared<Impl>()) {
  if (tls) {
    impl_->tls = std::make_unique<ssl::context>(ssl::context::tls_server);
    impl_->tls->use_certificate_chain(asio::buffer(tls->certificateChainPem.data(), tls->certificateChainPem.size()));
    impl_->tls->use_private_key(asio::buffer(tls->privateKeyPem.data(), tls->privateKeyPem.size()), ssl::context::pem);
  }
  const tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
  impl_->acceptor.open(endpoint.protocol());
  impl_->acceptor.set_option(tcp::acceptor::reuse_address(true));
  impl_->acceptor.bind(endpoint);
  impl_->acceptor.listen();
  impl_->port = impl_->acceptor.local_endpoint().port();
  impl_->accept();
  impl_->thread = std::thread([impl = impl_] { impl->io.run(); });
}

HttpTestServer::~HttpTestServer() {
  asio::post(impl_->io, [impl = impl_] {
    beast::error_code ignored;
    impl->acceptor.close(ignored);
    for (auto& weak : impl->open)
      if (auto stream = weak.lock()) stream->socket().close(ignored);
    impl->open.clear();
    impl->held.clear();
  });
  impl_->thread.join();
}

std::uint16_t HttpTestServer::port() const { return impl_->port; }

std::string HttpTestServer::url(std::string_view path) const {
  return std::string(impl_->tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(port()) + std::string(path);
}

void HttpTestServer::route(std::string method, std::string path, Response response) {
  std::lock_guard lock(impl_->mutex);
  impl_->routes[{std::move(method), std::move(path)}] = std::move(response);
}

std::vector<HttpTestServer::Request> HttpTestServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->record;
}

std::size_t HttpTestServer::requestCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->record.size();
}

bool HttpTestServer::waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
  std::unique_lock lock(impl_->mutex);
  return impl_->recorded.wait_for(lock, limit, [&] { return impl_->record.size() >= count; });
}

std::size_t HttpTestServer::connectionCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->connections;
}

}  // namespace zephlo::testing
