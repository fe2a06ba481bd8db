#include "apps/service/http_connection.hpp"

#include <string_view>
#include <utility>
#include <vector>

#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include "apps/service/console_assets.hpp"
#include "apps/service/console_socket.hpp"
#include "apps/service/rest_api.hpp"
#include "apps/service/service_hub.hpp"
#include "apps/service/session_socket.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::service {

namespace beast = boost::beast;
namespace http = beast::http;

namespace {

constexpr std::string_view kConsoleSocketPath = "/console/ws";
constexpr std::string_view kBearerPrefix = "Bearer ";
constexpr std::string_view kSessionsPrefix = "/sessions/";

struct SocketTarget {
  std::string sessionId;
  SocketKind kind;
};

// "/sessions/<id>/control/sockets/1/ws" or ".../stream/sockets/1/ws".
std::optional<SocketTarget> socketTarget(std::string_view path) {
  if (path.substr(0, kSessionsPrefix.size()) != kSessionsPrefix) return std::nullopt;
  path.remove_prefix(kSessionsPrefix.size());
  const auto slash = path.find('/');
  if (slash == std::string_view::npos || slash == 0) return std::nullopt;
  const std::string_view id = path.substr(0, slash);
  const std::string_view rest = path.substr(slash);
  const std::string control = "/control" + std::string(wire::kSocketPath);
  const std::string stream = "/stream" + std::string(wire::kSocketPath);
  if (rest == control) return SocketTarget{std::string(id), SocketKind::Control};
  if (rest == stream) return SocketTarget{std::string(id), SocketKind::Stream};
  return std::nullopt;
}

std::string_view pathOf(std::string_view target) {
  return target.substr(0, target.find_first_of("?#"));
}

}  // namespace

HttpConnection::HttpConnection(boost::asio::ip::tcp::socket socket, std::shared_ptr<ServiceHub> hub,
                               std::string fallbackHost)
    : stream_(std::move(socket)), hub_(std::move(hub)), fallbackHost_(std::move(fallbackHost)) {}

void HttpConnection::start() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  read();
}

void HttpConnection::close() {
  if (!open_) return;
  open_ = false;
  beast::error_code ignored;
  stream_.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
  stream_.socket().close(ignored);
}

void HttpConnection::read() {
  parser_.emplace();
  parser_->body_limit(kMaxBodyBytes);
  stream_.expires_after(kIdleTimeout);
  http::async_read(stream_, buffer_, *parser_,
                   beast::bind_front_handler(&HttpConnection::onRead, shared_from_this()));
}

void HttpConnection::onRead(beast::error_code ec, std::size_t) {
  if (ec == http::error::body_limit) {
    // The rest of the body is still on the wire: answer, then close.
    return respond(parser_->get(), errorReply(413, "Request body too large"), AfterReply::Close);
  }
  if (ec) return close();
  Request request = parser_->release();

  if (beast::websocket::is_upgrade(request)) return upgrade(std::move(request));

  const std::string_view target(request.target().data(), request.target().size());
  if (RestApi::serves(target)) {
    const auto host = request[http::field::host];
    RestRequest rest{std::string(request.method_string()), std::string(target), request.body(),
                     "ws://" + (host.empty() ? fallbackHost_ : std::string(host))};
    return respond(request, RestApi(*hub_).handle(rest));
  }
  if (request.method() == http::verb::get) {
    if (const ConsoleAsset* asset = consoleAsset(pathOf(target)))
      return respond(request, RestReply{200, std::string(asset->contentType), std::string(asset->content)});
  }
  respond(request, errorReply(404, "Not found"));
}

void HttpConnection::upgrade(Request request) {
  const std::string_view path = pathOf({request.target().data(), request.target().size()});
  if (path == kConsoleSocketPath) {
    stream_.expires_never();
    open_ = false;
    std::make_shared<ConsoleSocket>(stream_.release_socket(), hub_)->accept(std::move(request));
    return;
  }
  const auto target = socketTarget(path);
  if (!target) return respond(request, errorReply(404, "Not found"));
  Session* session = hub_->store().find(target->sessionId);
  if (!session || session->id != target->sessionId) return respond(request, errorReply(404, "Session not found"));
  if (session->state() == wire::kStateEnded) return respond(request, errorReply(410, "Session has ended"));

  const auto field = target->kind == SocketKind::Control ? wire::kControlToken : wire::kStreamToken;
  const std::string expected = std::string(kBearerPrefix) + session->token(field);
  const auto authorization = request[http::field::authorization];
  if (std::string_view(authorization.data(), authorization.size()) != expected)
    return respond(request, errorReply(401, "Missing or wrong bearer token"));

  stream_.expires_never();
  open_ = false;
  std::make_shared<SessionSocket>(stream_.release_socket(), hub_, session->id, target->kind)
      ->accept(std::move(request));
}

void HttpConnection::respond(const Request& request, RestReply reply, AfterReply after) {
  response_ = std::make_shared<http::response<http::string_body>>(
      static_cast<http::status>(reply.status), request.version());
  response_->set(http::field::server, "zephlo-service");
  response_->set(http::field::content_type, reply.contentType);
  response_->set(http::field::cache_control, "no-store");
  response_->keep_alive(request.keep_alive());
  response_->body() = std::move(reply.body);
  response_->prepare_payload();
  const bool keepAlive = response_->keep_alive() && after == AfterReply::KeepAlive;
  http::async_write(stream_, *response_,
                    beast::bind_front_handler(&HttpConnection::onWrite, shared_from_this(), keepAlive));
}

void HttpConnection::onWrite(bool keepAlive, beast::error_code ec, std::size_t) {
  response_.reset();
  if (ec || !keepAlive) return close();
  read();
}

}  // namespace zephlo::service
