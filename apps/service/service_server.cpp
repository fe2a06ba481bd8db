#include "apps/service/service_server.hpp"

#include <charconv>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "apps/service/http_connection.hpp"
#include "apps/service/service_hub.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/platform/sequence_checker.hpp"

namespace zephlo::service {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

struct ServiceServer::Listener : std::enable_shared_from_this<Listener> {
  tcp::acceptor acceptor{platform::ioContext()};
  std::shared_ptr<ServiceHub> hub = ServiceHub::create();
  std::vector<std::weak_ptr<HttpConnection>> connections;
  std::string hostPort;

  void accept() {
    acceptor.async_accept([self = shared_from_this()](boost::system::error_code ec, tcp::socket socket) {
      if (ec == asio::error::operation_aborted || !self->acceptor.is_open()) return;
      if (!ec) {
        socket.set_option(tcp::no_delay(true), ec);
        auto connection = std::make_shared<HttpConnection>(std::move(socket), self->hub, self->hostPort);
        std::erase_if(self->connections, [](const auto& weak) { return weak.expired(); });
        self->connections.push_back(connection);
        connection->start();
      }
      self->accept();
    });
  }
};

ServiceServer::ServiceServer() : listener_(std::make_shared<Listener>()) {}

ServiceServer::~ServiceServer() { stop(); }

bool ServiceServer::listen(std::string_view host, std::uint16_t port, std::string* error) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  boost::system::error_code ec;
  tcp::resolver resolver(platform::ioContext());
  const auto results = resolver.resolve(std::string(host), std::to_string(port),
                                        tcp::resolver::numeric_service | tcp::resolver::passive, ec);
  if (ec || results.empty()) {
    if (error) *error = "cannot resolve " + std::string(host) + ": " + ec.message();
    return false;
  }
  const tcp::endpoint endpoint = results.begin()->endpoint();
  tcp::acceptor& acceptor = listener_->acceptor;
  acceptor.open(endpoint.protocol(), ec);
  if (!ec) acceptor.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    if (error) *error = "cannot listen on " + std::string(host) + ":" + std::to_string(port) + ": " + ec.message();
    acceptor.close(ec);
    return false;
  }
  const auto bound = acceptor.local_endpoint();
  const std::string address = bound.address().is_v6() ? "[" + bound.address().to_string() + "]"
                                                       : bound.address().to_string();
  listener_->hostPort = address + ":" + std::to_string(bound.port());
  listener_->accept();
  return true;
}

void ServiceServer::stop() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  boost::system::error_code ignored;
  listener_->acceptor.close(ignored);
  for (const auto& weak : listener_->connections)
    if (auto connection = weak.lock()) connection->close();
  listener_->connections.clear();
  listener_->hub->closeAll();
}

std::uint16_t ServiceServer::port() const {
  boost::system::error_code ec;
  const auto endpoint = listener_->acceptor.local_endpoint(ec);
  return ec ? 0 : endpoint.port();
}

std::string ServiceServer::baseUrl() const { return "http://" + listener_->hostPort; }

ServiceHub& ServiceServer::hub() { return *listener_->hub; }

long ServiceServer::liveConnections() const {
  // The hub is shared by every connection; beyond the listener's own reference,
  // each use is a connection still running.
  return listener_->hub.use_count() - 1;
}

bool parseListenAddress(std::string_view text, std::string* host, std::uint16_t* port) {
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0 || colon + 1 == text.size()) return false;
  std::string_view name = text.substr(0, colon);
  if (name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
  unsigned value = 0;
  const auto digits = text.substr(colon + 1);
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (ec != std::errc() || end != digits.data() + digits.size() || value > 65535) return false;
  *host = std::string(name);
  *port = static_cast<std::uint16_t>(value);
  return true;
}

}  // namespace zephlo::service
