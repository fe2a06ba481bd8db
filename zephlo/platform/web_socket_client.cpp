#include "zephlo/platform/web_socket_client.hpp"

#include <openssl/ssl.h>

#include <cstdlib>
#include <deque>
#include <type_traits>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/platform/sequence_checker.hpp"

namespace zephlo::platform {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace ssl = boost::asio::ssl;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;

namespace {

// Incoming messages larger than this end the connection; the peer only sends
// small control and event maps.
constexpr std::size_t kMaxIncomingMessage = 16 * 1024 * 1024;
// Bounds our own close handshake, so a silent peer cannot hold a connection open.
constexpr auto kCloseTimeout = std::chrono::seconds(5);

struct Endpoint {
  bool secure = false;
  std::string host;        // without brackets for IPv6
  std::string port;
  std::string hostHeader;  // host[:port] as the Host field wants it
  std::string target;      // path and query
};

std::optional<Endpoint> parseUrl(std::string_view url) {
  Endpoint e;
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
  if (host.empty()) return std::nullopt;
  for (char c : port)
    if (c < '0' || c > '9') return std::nullopt;
  e.host = std::string(host);
  e.port = port.empty() ? (e.secure ? "443" : "80") : std::string(port);
  const bool v6 = e.host.find(':') != std::string::npos;
  e.hostHeader = v6 ? "[" + e.host + "]" : e.host;
  if (!port.empty()) e.hostHeader += ":" + e.port;
  if (const auto hash = rest.find('#'); hash != std::string_view::npos) rest = rest.substr(0, hash);
  e.target = rest.empty() || rest.front() != '/' ? "/" + std::string(rest) : std::string(rest);
  return e;
}

bool isIpAddress(const std::string& host) {
  boost::system::error_code ec;
  asio::ip::make_address(host, ec);
  return !ec;
}

// The trust store: the file named by SSL_CERT_FILE when set, else the system's.
std::shared_ptr<ssl::context> makeTlsContext(boost::system::error_code& ec) {
  auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
  context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                       ssl::context::no_sslv3);
  if (const char* file = std::getenv("SSL_CERT_FILE"); file && *file)
    context->load_verify_file(file, ec);
  else
    context->set_default_verify_paths(ec);
  return context;
}

struct PendingWrite {
  Bytes message;
  std::function<void(bool)> completion;
};

}  // namespace

// The connection behind a handle. Every async step holds it through
// shared_from_this, so it outlives its handle until the last handler has run.
class WebSocketClient::Connection : public std::enable_shared_from_this<Connection> {
 public:
  virtual ~Connection() = default;
  virtual void connect() = 0;
  virtual void disconnect(std::uint16_t closeCode) = 0;
  virtual void write(Bytes message, std::function<void(bool)> completion) = 0;
  virtual void writePing() = 0;
  virtual bool isConnected() const = 0;
  // The handle is gone: no callbacks any more, close at once.
  virtual void abandon() = 0;
  void setCallbacks(WebSocketCallbacks callbacks) { callbacks_ = std::move(callbacks); }

 protected:
  WebSocketCallbacks callbacks_;
};

namespace {

using PlainStream = websocket::stream<beast::tcp_stream>;
using TlsStream = websocket::stream<beast::ssl_stream<beast::tcp_stream>>;

template <class Stream>
class StreamConnection final : public WebSocketClient::Connection {
  static constexpr bool kSecure = std::is_same_v<Stream, TlsStream>;
  enum class State { Idle, Opening, Open, Closing, Closed };

 public:
  StreamConnection(URLRequest request, Endpoint endpoint, std::shared_ptr<ssl::context> tls)
      : request_(std::move(request)),
        endpoint_(std::move(endpoint)),
        tls_(std::move(tls)),
        resolver_(ioContext()),
        ws_(makeStream()) {}

  void connect() override {
    if (state_ != State::Idle) return;
    state_ = State::Opening;
    std::weak_ptr<Connection> weak = shared_from_this();
    deadline_ = MainQueue::shared().after(request_.timeout, [weak] {
      if (auto self = weak.lock()) static_cast<StreamConnection&>(*self).onDeadline();
    });
    resolver_.async_resolve(endpoint_.host, endpoint_.port,
                            [self = self()](beast::error_code ec, tcp::resolver::results_type r) {
                              self->onResolve(ec, std::move(r));
                            });
  }

  void disconnect(std::uint16_t closeCode) override {
    if (state_ == State::Open) {
      state_ = State::Closing;
      ws_.set_option(websocket::stream_base::timeout{kCloseTimeout, websocket::stream_base::none(),
                                                     false});
      ws_.async_close(websocket::close_reason(closeCode),
                      [self = self()](beast::error_code ec) { self->onClose(ec); });
    } else if (state_ == State::Opening) {
      state_ = State::Closing;
      shutDownTransport();
    }
  }

  void write(Bytes message, std::function<void(bool)> completion) override {
    if (state_ != State::Opening && state_ != State::Open) {
      if (completion) MainQueue::shared().async([completion = std::move(completion)] { completion(false); });
      return;
    }
    writes_.push_back({std::move(message), std::move(completion)});
    startWrite();
  }

  void writePing() override {
    if (state_ != State::Open || pinging_) return;
    pinging_ = true;
    ws_.async_ping({}, [self = self()](beast::error_code ec) { self->onPing(ec); });
  }

  bool isConnected() const override { return state_ == State::Open; }

  void abandon() override {
    callbacks_ = {};
    switch (state_) {
      case State::Open:
        disconnect(WebSocketClient::kNormalClosure);  // the close handshake finishes on its own
        return;
      case State::Idle:
      case State::Opening:
        state_ = State::Closing;
        shutDownTransport();
        return;
      case State::Closing:  // a close in progress keeps going, bounded by kCloseTimeout
      case State::Closed:
        return;
    }
  }

 private:
  Stream makeStream() {
    if constexpr (kSecure)
      return Stream(ioContext(), *tls_);
    else
      return Stream(ioContext());
  }

  std::shared_ptr<StreamConnection> self() {
    return std::static_pointer_cast<StreamConnection>(shared_from_this());
  }

  // One line per step: true when `ec` ended the connection (or it is already over).
  bool failed(beast::error_code ec) {
    if (state_ == State::Closed) return true;
    if (!ec) return false;
    if (timedOut_) {
      finish("The request timed out.");
    } else if (ec == asio::error::operation_aborted || ec == websocket::error::closed) {
      // Our own shutdown, or a close handshake; only an unusual close code is news.
      const auto code = ws_.reason().code;
      if (ec == websocket::error::closed && code != websocket::close_code::normal &&
          code != websocket::close_code::none)
        finish("The peer closed the connection with code " + std::to_string(code) + ".");
      else
        finish(std::nullopt);
    } else {
      finish(ec.message());
    }
    return true;
  }

  void onDeadline() {
    if (state_ != State::Opening) return;
    timedOut_ = true;
    shutDownTransport();
  }

  void onResolve(beast::error_code ec, tcp::resolver::results_type results) {
    if (failed(ec)) return;
    beast::get_lowest_layer(ws_).async_connect(
        results, [self = self()](beast::error_code ec, const tcp::endpoint&) { self->onTcpConnect(ec); });
  }

  void onTcpConnect(beast::error_code ec) {
    if (failed(ec)) return;
    // Frames are small writes that wait on their acknowledgements: Nagle's delay
    // would add tens of milliseconds to every round trip and inflate the lag.
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().set_option(tcp::no_delay(true), ignored);
    if constexpr (kSecure) {
      auto& stream = ws_.next_layer();
      // SNI names a host; an address is never sent as a server name.
      if (!isIpAddress(endpoint_.host) &&
          !SSL_set_tlsext_host_name(stream.native_handle(), endpoint_.host.c_str())) {
        finish("Could not set the TLS server name.");
        return;
      }
      stream.set_verify_mode(ssl::verify_peer);
      stream.set_verify_callback(ssl::host_name_verification(endpoint_.host));
      stream.async_handshake(ssl::stream_base::client,
                             [self = self()](beast::error_code ec) { self->onTlsHandshake(ec); });
    } else {
      startWebSocketHandshake();
    }
  }

  void onTlsHandshake(beast::error_code ec) {
    if (failed(ec)) return;
    startWebSocketHandshake();
  }

  void startWebSocketHandshake() {
    ws_.set_option(websocket::stream_base::decorator(
        [headers = request_.headers](websocket::request_type& req) {
          for (const auto& [name, value] : headers) req.set(name, value);
        }));
    ws_.read_message_max(kMaxIncomingMessage);
    ws_.auto_fragment(false);
    ws_.async_handshake(endpoint_.hostHeader, endpoint_.target,
                        [self = self()](beast::error_code ec) { self->onHandshake(ec); });
  }

  void onHandshake(beast::error_code ec) {
    if (failed(ec)) return;
    if (state_ != State::Opening) {  // disconnected while the handshake finished
      finish(std::nullopt);
      return;
    }
    state_ = State::Open;
    if (deadline_) deadline_->cancel();
    ws_.binary(true);
    if (callbacks_.onConnect) callbacks_.onConnect();
    if (state_ != State::Open) return;
    startRead();
    startWrite();
  }

  void startRead() {
    ws_.async_read(buffer_, [self = self()](beast::error_code ec, std::size_t) { self->onRead(ec); });
  }

  void onRead(beast::error_code ec) {
    if (failed(ec)) return;
    const auto data = buffer_.cdata();
    const std::span<const std::uint8_t> bytes(static_cast<const std::uint8_t*>(data.data()),
                                              data.size());
    if (ws_.got_text()) {
      if (callbacks_.onText)
        callbacks_.onText(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    } else if (callbacks_.onBinary) {
      callbacks_.onBinary(bytes);
    }
    buffer_.clear();
    if (state_ == State::Open || state_ == State::Closing) startRead();
  }

  void startWrite() {
    if (writing_ || writes_.empty() || state_ != State::Open) return;
    writing_ = true;
    ws_.async_write(asio::buffer(writes_.front().message),
                    [self = self()](beast::error_code ec, std::size_t) { self->onWrite(ec); });
  }

  void onWrite(beast::error_code ec) {
    writing_ = false;
    auto done = std::move(writes_.front());
    writes_.pop_front();
    if (done.completion) done.completion(!ec);
    if (failed(ec)) return;
    startWrite();
  }

  void onPing(beast::error_code ec) {
    pinging_ = false;
    if (failed(ec)) return;
  }

  void onClose(beast::error_code ec) {
    if (failed(ec)) return;
    finish(std::nullopt);
  }

  void shutDownTransport() {
    resolver_.cancel();
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().close(ignored);
  }

  // The connection is over: every write that is not in flight completes now (the
  // one in flight completes in its own handler), then the user hears of the end.
  void finish(std::optional<std::string> error) {
    if (state_ == State::Closed) return;
    state_ = State::Closed;
    if (deadline_) deadline_->cancel();
    shutDownTransport();
    auto pending = std::move(writes_);
    writes_.clear();
    if (writing_) {
      writes_.push_back(std::move(pending.front()));
      pending.pop_front();
    }
    for (auto& w : pending)
      if (w.completion) w.completion(false);
    auto onDisconnect = std::move(callbacks_.onDisconnect);
    callbacks_ = {};
    if (onDisconnect) onDisconnect(error);
  }

  URLRequest request_;
  Endpoint endpoint_;
  std::shared_ptr<ssl::context> tls_;  // outlives the stream that uses it
  tcp::resolver resolver_;
  Stream ws_;
  beast::flat_buffer buffer_;
  std::deque<PendingWrite> writes_;
  WorkItemPtr deadline_;
  State state_ = State::Idle;
  bool writing_ = false;
  bool pinging_ = false;
  bool timedOut_ = false;
};

// A connection that could not even start (a bad URL or trust store): it reports
// its error as a disconnect, asynchronously like every other outcome.
class FailedConnection final : public WebSocketClient::Connection {
 public:
  explicit FailedConnection(std::string error) : error_(std::move(error)) {}
  void connect() override {
    if (started_) return;
    started_ = true;
    MainQueue::shared().async([self = shared_from_this(), this] {
      auto onDisconnect = std::move(callbacks_.onDisconnect);
      callbacks_ = {};
      if (onDisconnect) onDisconnect(error_);
    });
  }
  void disconnect(std::uint16_t) override {}
  void write(Bytes, std::function<void(bool)> completion) override {
    if (completion) MainQueue::shared().async([completion = std::move(completion)] { completion(false); });
  }
  void writePing() override {}
  bool isConnected() const override { return false; }
  void abandon() override { callbacks_ = {}; }

 private:
  std::string error_;
  bool started_ = false;
};

}  // namespace

WebSocketClient::WebSocketClient(URLRequest request) {
  auto endpoint = parseUrl(request.url);
  if (!endpoint) {
    connection_ = std::make_shared<FailedConnection>("Invalid WebSocket URL: " + request.url);
    return;
  }
  if (!endpoint->secure) {
    connection_ = std::make_shared<StreamConnection<PlainStream>>(std::move(request),
                                                                  std::move(*endpoint), nullptr);
    return;
  }
  boost::system::error_code ec;
  auto tls = makeTlsContext(ec);
  if (ec) {
    connection_ = std::make_shared<FailedConnection>("Could not load trusted certificates: " +
                                                     ec.message());
    return;
  }
  connection_ = std::make_shared<StreamConnection<TlsStream>>(std::move(request),
                                                              std::move(*endpoint), std::move(tls));
}

WebSocketClient::~WebSocketClient() { connection_->abandon(); }

void WebSocketClient::setCallbacks(WebSocketCallbacks callbacks) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  connection_->setCallbacks(std::move(callbacks));
}

void WebSocketClient::connect() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  connection_->connect();
}

void WebSocketClient::disconnect(std::uint16_t closeCode) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  connection_->disconnect(closeCode);
}

bool WebSocketClient::isConnected() const { return connection_->isConnected(); }

void WebSocketClient::write(Bytes message, std::function<void(bool)> completion) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  connection_->write(std::move(message), std::move(completion));
}

void WebSocketClient::writePing() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  connection_->writePing();
}

}  // namespace zephlo::platform
