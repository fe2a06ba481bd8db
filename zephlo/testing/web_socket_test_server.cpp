#include "zephlo/testing/web_socket_test_server.hpp"

#include <strings.h>

#include <deque>
#include <type_traits>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::testing {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace ssl = boost::asio::ssl;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;

namespace {

class Session {
 public:
  virtual ~Session() = default;
  virtual void send(Bytes message, bool binary) = 0;
  virtual void drop() = 0;
  virtual void close(std::uint16_t code) = 0;
  virtual void resumeReading() = 0;
  virtual bool isOpen() const = 0;
};

}  // namespace

struct WebSocketTestServer::State {
  explicit State(Options o) : options(std::move(o)), acceptor(platform::ioContext()) {}

  Options options;
  std::unique_ptr<ssl::context> tls;
  tcp::acceptor acceptor;
  std::vector<Upgrade> upgrades;
  std::vector<Message> received;
  std::vector<std::uint16_t> closeCodes;
  std::vector<std::shared_ptr<Session>> sessions;  // accepted, in order
  std::vector<std::shared_ptr<Session>> silent;    // upgrades left unanswered
  std::size_t pings = 0;
  bool reading = true;
};

namespace {

using PlainStream = websocket::stream<beast::tcp_stream>;
using TlsStream = websocket::stream<beast::ssl_stream<beast::tcp_stream>>;

template <class Stream>
class StreamSession final : public Session, public std::enable_shared_from_this<StreamSession<Stream>> {
  static constexpr bool kSecure = std::is_same_v<Stream, TlsStream>;

 public:
  StreamSession(std::shared_ptr<WebSocketTestServer::State> state, tcp::socket socket)
      : state_(std::move(state)), ws_(makeStream(std::move(socket))) {}

  void start() {
    if constexpr (kSecure) {
      ws_.next_layer().async_handshake(ssl::stream_base::server,
                                       [self = self()](beast::error_code ec) { self->onTls(ec); });
    } else {
      readRequest();
    }
  }

  void send(Bytes message, bool binary) override {
    if (!open_) return;
    writes_.push_back({std::move(message), binary});
    startWrite();
  }

  void drop() override {
    open_ = false;
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().close(ignored);
  }

  void close(std::uint16_t code) override {
    if (!open_) return;
    open_ = false;
    ws_.async_close(websocket::close_reason(code), [self = self()](beast::error_code) {});
  }

  void resumeReading() override {
    if (open_ && !readPending_) startRead();
  }

  bool isOpen() const override { return open_; }

 private:
  struct Outgoing {
    Bytes bytes;
    bool binary;
  };

  Stream makeStream(tcp::socket socket) {
    if constexpr (kSecure)
      return Stream(std::move(socket), *state_->tls);
    else
      return Stream(std::move(socket));
  }
  std::shared_ptr<StreamSession> self() { return this->shared_from_this(); }

  void onTls(beast::error_code ec) {
    if (ec) return;
    if constexpr (kSecure) {
      if (const char* name = SSL_get_servername(ws_.next_layer().native_handle(),
                                                TLSEXT_NAMETYPE_host_name))
        serverName_ = name;
    }
    readRequest();
  }

  void readRequest() {
    http::async_read(ws_.next_layer(), buffer_, request_,
                     [self = self()](beast::error_code ec, std::size_t) { self->onRequest(ec); });
  }

  void onRequest(beast::error_code ec) {
    if (ec) return;
    WebSocketTestServer::Upgrade upgrade;
    upgrade.target = std::string(request_.target());
    for (const auto& field : request_)
      upgrade.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    const auto& token = state_->options.bearerToken;
    const bool authorised = !token || upgrade.header("Authorization") == "Bearer " + *token;
    upgrade.accepted = authorised && websocket::is_upgrade(request_);
    upgrade.serverName = serverName_;
    if (!state_->options.answerUpgrades) {
      upgrade.accepted = false;
      state_->upgrades.push_back(upgrade);
      state_->silent.push_back(self());  // held open, unanswered, until dropped
      return;
    }
    state_->upgrades.push_back(upgrade);
    if (!upgrade.accepted) {
      response_.result(authorised ? http::status::bad_request : http::status::unauthorized);
      response_.version(request_.version());
      response_.keep_alive(false);
      response_.prepare_payload();
      http::async_write(ws_.next_layer(), response_,
                        [self = self()](beast::error_code, std::size_t) { self->drop(); });
      return;
    }
    ws_.control_callback([weak = std::weak_ptr<WebSocketTestServer::State>(state_)](
                             websocket::frame_type kind, beast::string_view) {
      if (auto state = weak.lock(); state && kind == websocket::frame_type::ping) ++state->pings;
    });
    ws_.async_accept(request_, [self = self()](beast::error_code ec) { self->onAccept(ec); });
  }

  void onAccept(beast::error_code ec) {
    if (ec) return;
    open_ = true;
    index_ = state_->sessions.size();
    state_->sessions.push_back(self());
    if (state_->reading) startRead();
  }

  void startRead() {
    readPending_ = true;
    ws_.async_read(buffer_, [self = self()](beast::error_code ec, std::size_t) { self->onRead(ec); });
  }

  void onRead(beast::error_code ec) {
    readPending_ = false;
    if (ec == websocket::error::closed) state_->closeCodes.push_back(ws_.reason().code);
    if (ec) {
      open_ = false;
      return;
    }
    const auto data = buffer_.cdata();
    const auto* begin = static_cast<const std::uint8_t*>(data.data());
    WebSocketTestServer::Message message;
    message.connection = index_;
    message.bytes.assign(begin, begin + data.size());
    buffer_.clear();
    if (ws_.got_binary()) message.value = cbor::decodeChecked(message.bytes).value;
    const Value* id = nullptr;
    if (message.value && message.value->asMap()) id = message.value->asMap()->find(wire::kId);
    if (state_->options.autoAcknowledge && id && id->asUInt()) {
      if (auto ack = cbor::encode(Value(ValueMap{{Value(wire::kAck), *id}}))) send(std::move(*ack), true);
    }
    state_->received.push_back(std::move(message));
    if (state_->reading) startRead();
  }

  void startWrite() {
    if (writing_ || writes_.empty() || !open_) return;
    writing_ = true;
    ws_.binary(writes_.front().binary);
    ws_.async_write(asio::buffer(writes_.front().bytes),
                    [self = self()](beast::error_code ec, std::size_t) { self->onWrite(ec); });
  }

  void onWrite(beast::error_code ec) {
    writing_ = false;
    writes_.pop_front();
    if (ec) return;
    startWrite();
  }

  std::shared_ptr<WebSocketTestServer::State> state_;
  Stream ws_;
  beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
  std::deque<Outgoing> writes_;
  std::optional<std::string> serverName_;
  std::size_t index_ = 0;
  bool open_ = false;
  bool writing_ = false;
  bool readPending_ = false;
};

void acceptNext(const std::shared_ptr<WebSocketTestServer::State>& state) {
  state->acceptor.async_accept([state](beast::error_code ec, tcp::socket socket) {
    if (ec) return;  // the server is gone
    if (state->tls)
      std::make_shared<StreamSession<TlsStream>>(state, std::move(socket))->start();
    else
      std::make_shared<StreamSession<PlainStream>>(state, std::move(socket))->start();
    acceptNext(state);
  });
}

}  // namespace

std::optional<std::string> WebSocketTestServer::Upgrade::header(std::string_view name) const {
  for (const auto& [n, v] : headers)
    if (n.size() == name.size() && strncasecmp(n.data(), name.data(), n.size()) == 0) return v;
  return std::nullopt;
}

WebSocketTestServer::WebSocketTestServer() : WebSocketTestServer(Options{}) {}

WebSocketTestServer::WebSocketTestServer(Options options)
    : state_(std::make_shared<State>(std::move(options))) {
  if (state_->options.tls) {
    state_->tls = std::make_unique<ssl::context>(ssl::context::tls_server);
    const auto& identity = *state_->options.tls;
    state_->tls->use_certificate_chain(
        asio::buffer(identity.certificateChainPem.data(), identity.certificateChainPem.size()));
    state_->tls->use_private_key(asio::buffer(identity.privateKeyPem.data(), identity.privateKeyPem.size()),
                                 ssl::context::pem);
  }
  const tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
  state_->acceptor.open(endpoint.protocol());
  state_->acceptor.set_option(asio::socket_base::reuse_address(true));
  state_->acceptor.bind(endpoint);
  state_->acceptor.listen();
  acceptNext(state_);
}

WebSocketTestServer::~WebSocketTestServer() {
  beast::error_code ignored;
  state_->acceptor.close(ignored);
  for (auto& session : state_->sessions) session->drop();
  for (auto& session : state_->silent) session->drop();
  state_->sessions.clear();
  state_->silent.clear();
}

std::uint16_t WebSocketTestServer::port() const { return state_->acceptor.local_endpoint().port(); }

std::string WebSocketTestServer::url(std::string_view path) const {
  return std::string(state_->tls ? "wss" : "ws") + "://127.0.0.1:" + std::to_string(port()) +
         std::string(path);
}

const std::vector<WebSocketTestServer::Upgrade>& WebSocketTestServer::upgrades() const {
  return state_->upgrades;
}

const std::vector<WebSocketTestServer::Message>& WebSocketTestServer::received() const {
  return state_->received;
}

std::vector<ValueMap> WebSocketTestServer::receivedMaps() const {
  std::vector<ValueMap> maps;
  for (const auto& message : state_->received)
    if (message.value && message.value->asMap()) maps.push_back(*message.value->asMap());
  return maps;
}

std::size_t WebSocketTestServer::acceptedCount() const { return state_->sessions.size(); }

std::size_t WebSocketTestServer::openCount() const {
  std::size_t n = 0;
  for (const auto& session : state_->sessions) n += session->isOpen() ? 1 : 0;
  return n;
}

std::size_t WebSocketTestServer::pingCount() const { return state_->pings; }

const std::vector<std::uint16_t>& WebSocketTestServer::closeCodes() const { return state_->closeCodes; }

void WebSocketTestServer::setAutoAcknowledge(bool on) { state_->options.autoAcknowledge = on; }

void WebSocketTestServer::setReading(bool on) {
  state_->reading = on;
  if (on)
    for (auto& session : state_->sessions) session->resumeReading();
}

void WebSocketTestServer::sendBinary(Bytes message) {
  for (auto it = state_->sessions.rbegin(); it != state_->sessions.rend(); ++it) {
    if ((*it)->isOpen()) {
      (*it)->send(std::move(message), true);
      return;
    }
  }
}

void WebSocketTestServer::sendMap(const ValueMap& message) {
  if (auto bytes = cbor::encode(Value(message))) sendBinary(std::move(*bytes));
}

void WebSocketTestServer::sendText(std::string text) {
  for (auto it = state_->sessions.rbegin(); it != state_->sessions.rend(); ++it) {
    if ((*it)->isOpen()) {
      (*it)->send(Bytes(text.begin(), text.end()), false);
      return;
    }
  }
}

void WebSocketTestServer::dropConnections() {
  for (auto& session : state_->sessions) session->drop();
  for (auto& session : state_->silent) session->drop();
  state_->silent.clear();
}

void WebSocketTestServer::closeConnections(std::uint16_t code) {
  for (auto& session : state_->sessions) session->close(code);
}

}  // namespace zephlo::testing
