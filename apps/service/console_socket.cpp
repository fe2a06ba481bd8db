#include "apps/service/console_socket.hpp"

#include <utility>

#include "apps/service/rest_api.hpp"
#include "apps/service/service_hub.hpp"
#include "apps/service/value_fields.hpp"
#include "zephlo/core/json.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::service {

namespace beast = boost::beast;
namespace websocket = beast::websocket;

namespace {
constexpr std::string_view kTypeKey = "type";
constexpr std::string_view kSessionKey = "session";
}  // namespace

ConsoleSocket::ConsoleSocket(boost::asio::ip::tcp::socket socket, std::shared_ptr<ServiceHub> hub)
    : ws_(std::move(socket)), hub_(std::move(hub)) {}

void ConsoleSocket::accept(Request request) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
  ws_.read_message_max(kMaxMessageBytes);
  ws_.async_accept(request, beast::bind_front_handler(&ConsoleSocket::onAccept, shared_from_this()));
}

void ConsoleSocket::onAccept(beast::error_code ec) {
  if (ec) return finish();
  open_ = true;
  hub_->attach(shared_from_this());
  read();
}

void ConsoleSocket::read() {
  ws_.async_read(buffer_, beast::bind_front_handler(&ConsoleSocket::onRead, shared_from_this()));
}

void ConsoleSocket::onRead(beast::error_code ec, std::size_t) {
  if (ec) return finish();
  if (ws_.got_text()) {
    const auto data = buffer_.cdata();
    handleText({static_cast<const char*>(data.data()), data.size()});
  }
  buffer_.consume(buffer_.size());
  read();
}

void ConsoleSocket::handleText(std::string_view text) {
  std::string error;
  const auto parsed = parseJsonContainer(text, &error);
  const ValueMap* message = parsed ? parsed->asMap() : nullptr;
  if (!message) return sendError(parsed ? "Expected a JSON object" : "Invalid JSON: " + error);
  const std::string* type = textField(*message, kTypeKey);
  const std::string* sessionId = textField(*message, kSessionKey);
  if (!type) return sendError("Expected a \"type\"");

  if (*type == "watch") {
    watching_ = sessionId ? *sessionId : std::string();
    sendJson({{kTypeKey, "watching"}, {kSessionKey, watching_}});
    hub_->watch(*this, watching_);
    return;
  }
  if (*type == "event") {
    const std::string* event = textField(*message, wire::kEvent);
    const ValueMap* data = mapField(*message, wire::kData);
    if (!sessionId || !event || !data) return sendError("An event needs \"session\", \"event\" and \"data\"");
    if (!ServiceHub::isAgentEvent(*event)) return sendError("Not an agent event: " + *event);
    Session* session = hub_->store().find(*sessionId);
    if (!session) return sendError("Session not found");
    const std::size_t delivered = hub_->relay(*session, *event, *data);
    return sendJson({{kTypeKey, "sent"}, {wire::kEvent, *event}, {"delivered", delivered}});
  }
  sendError("Unknown message type: " + *type);
}

void ConsoleSocket::sendError(std::string message) {
  sendJson({{kTypeKey, "error"}, {wire::kMessage, std::move(message)}});
}

void ConsoleSocket::sendJson(const ValueMap& message) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!open_ || closing_) return;
  auto text = json::serialize(Value(message));
  if (!text) return;
  if (queue_.size() >= kMaxQueuedMessages) return close();  // the browser stopped reading
  queue_.push_back({false, std::make_shared<const Bytes>(text->begin(), text->end())});
  writeNext();
}

void ConsoleSocket::sendFrame(const ValueMap& figures, const SharedBytes& jpeg) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!open_ || closing_ || !jpeg) return;
  auto header = json::serialize(Value(figures));
  if (!header) return;
  Bytes message;
  message.reserve(4 + header->size() + jpeg->size());
  const auto length = static_cast<std::uint32_t>(header->size());
  for (int shift = 24; shift >= 0; shift -= 8) message.push_back(static_cast<std::uint8_t>(length >> shift));
  message.insert(message.end(), header->begin(), header->end());
  message.insert(message.end(), jpeg->begin(), jpeg->end());
  pendingFrame_ = Outgoing{true, std::make_shared<const Bytes>(std::move(message))};
  writeNext();
}

void ConsoleSocket::writeNext() {
  if (writing_ || !open_ || closing_) return;
  if (!queue_.empty()) {
    inFlight_ = std::move(queue_.front());
    queue_.pop_front();
  } else if (pendingFrame_) {
    inFlight_ = std::move(*pendingFrame_);
    pendingFrame_.reset();
  } else {
    return;
  }
  writing_ = true;
  ws_.binary(inFlight_.binary);
  ws_.async_write(boost::asio::buffer(*inFlight_.bytes),
                  beast::bind_front_handler(&ConsoleSocket::onWrite, shared_from_this()));
}

void ConsoleSocket::onWrite(beast::error_code ec, std::size_t) {
  writing_ = false;
  inFlight_ = {};
  if (ec) return finish();
  if (closing_) {
    ws_.async_close(websocket::close_code::going_away,
                    [self = shared_from_this()](beast::error_code e) {
                      if (e) self->finish();
                    });
    return;
  }
  writeNext();
}

void ConsoleSocket::close() {
  if (!open_ || closing_) return;
  closing_ = true;
  queue_.clear();
  pendingFrame_.reset();
  if (writing_) return;  // closes once the write in flight completes
  ws_.async_close(websocket::close_code::going_away, [self = shared_from_this()](beast::error_code e) {
    if (e) self->finish();
  });
}

void ConsoleSocket::finish() {
  if (finished_) return;
  finished_ = true;
  open_ = false;
  closing_ = true;
  queue_.clear();
  pendingFrame_.reset();
  beast::error_code ignored;
  beast::get_lowest_layer(ws_).socket().close(ignored);
}

}  // namespace zephlo::service
