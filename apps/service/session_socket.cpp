#include "apps/service/session_socket.hpp"

#include <utility>

#include <boost/beast/websocket/rfc6455.hpp>

#include "apps/service/service_hub.hpp"
#include "apps/service/value_fields.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::service {

namespace beast = boost::beast;
namespace websocket = beast::websocket;

SessionSocket::SessionSocket(boost::asio::ip::tcp::socket socket, std::shared_ptr<ServiceHub> hub,
                             std::string sessionId, SocketKind kind)
    : ws_(std::move(socket)), hub_(std::move(hub)), sessionId_(std::move(sessionId)), kind_(kind) {}

void SessionSocket::accept(Request request) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
  ws_.read_message_max(kMaxMessageBytes);
  ws_.binary(true);
  ws_.async_accept(request, beast::bind_front_handler(&SessionSocket::onAccept, shared_from_this()));
}

void SessionSocket::onAccept(beast::error_code ec) {
  if (ec) return finish();
  open_ = true;
  hub_->attach(shared_from_this());
  read();
}

void SessionSocket::read() {
  ws_.async_read(buffer_, beast::bind_front_handler(&SessionSocket::onRead, shared_from_this()));
}

void SessionSocket::onRead(beast::error_code ec, std::size_t) {
  if (ec) return finish();
  if (ws_.got_binary()) {
    const auto data = buffer_.cdata();
    handleMessage({static_cast<const std::uint8_t*>(data.data()), data.size()});
  }  // text frames carry nothing in this protocol
  buffer_.consume(buffer_.size());
  read();
}

void SessionSocket::handleMessage(std::span<const std::uint8_t> bytes) {
  // decodeChecked: keys the client's own decoder would stop on are only ignored here.
  const cbor::DecodeResult decoded = cbor::decodeChecked(bytes);
  if (!decoded.value) return;
  const ValueMap* message = decoded.value->asMap();
  if (!message || !message->isStringKeyed()) return;

  if (const std::uint64_t* id = unsignedField(*message, wire::kId)) {
    if (auto ack = cbor::encode(Value(ValueMap{{wire::kAck, *id}}))) {
      lastReceivedId_ = *id;
      enqueue(std::move(*ack), *id);
    }
  }
  const std::string* event = textField(*message, wire::kEvent);
  const ValueMap* data = mapField(*message, wire::kData);
  if (!event || !data || !data->isStringKeyed()) return;

  if (*event == wire::kFilter) {
    filter_.clear();
    if (const ValueArray* events = arrayField(*data, wire::kFilterEvents))
      for (const Value& name : *events)
        if (const std::string* s = name.asString()) filter_.insert(*s);
    return;
  }
  if (kind_ == SocketKind::Stream) hub_->onStreamEvent(*this, *event, *data);
}

bool SessionSocket::send(std::string_view event, const ValueMap& data) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!open_ || closing_ || !wants(event)) return false;
  auto message = cbor::encodeMessage(event, data, ++nextId_);
  if (!message) return false;
  enqueue(std::move(*message), 0);
  return true;
}

std::uint64_t SessionSocket::unacknowledged() const {
  return lastReceivedId_ > lastAcknowledgedId_ ? lastReceivedId_ - lastAcknowledgedId_ : 0;
}

void SessionSocket::enqueue(Bytes message, std::uint64_t ackId) {
  if (closing_) return;
  queuedBytes_ += message.size();
  if (queuedBytes_ > kMaxQueuedBytes) {
    // The peer stopped reading; holding more would only grow the service.
    return close();
  }
  queue_.push_back({std::make_shared<const Bytes>(std::move(message)), ackId});
  writeNext();
}

void SessionSocket::writeNext() {
  if (writing_ || queue_.empty() || !open_) return;
  writing_ = true;
  // The message in flight leaves the queue, so clearing the queue never frees
  // a buffer Beast is still writing.
  inFlight_ = std::move(queue_.front());
  queue_.pop_front();
  ws_.async_write(boost::asio::buffer(*inFlight_.bytes),
                  beast::bind_front_handler(&SessionSocket::onWrite, shared_from_this()));
}

void SessionSocket::onWrite(beast::error_code ec, std::size_t) {
  writing_ = false;
  queuedBytes_ -= inFlight_.bytes->size();
  if (inFlight_.ackId != 0) lastAcknowledgedId_ = inFlight_.ackId;
  inFlight_ = {};
  if (ec) return finish();
  if (closing_) return startClose();
  writeNext();
}

void SessionSocket::close() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!open_ || closing_) return;
  closing_ = true;
  queue_.clear();
  queuedBytes_ = inFlight_.bytes ? inFlight_.bytes->size() : 0;
  // Beast allows one write-like operation at a time: a write in flight closes
  // when it completes.
  if (!writing_) startClose();
}

void SessionSocket::startClose() {
  ws_.async_close(websocket::close_code::going_away,
                  beast::bind_front_handler(&SessionSocket::onClose, shared_from_this()));
}

void SessionSocket::onClose(beast::error_code ec) {
  // Normally the pending read then completes with "closed" and finishes the socket.
  if (ec) finish();
}

void SessionSocket::finish() {
  if (finished_) return;
  finished_ = true;
  open_ = false;
  closing_ = true;
  queue_.clear();
  beast::error_code ignored;
  beast::get_lowest_layer(ws_).socket().close(ignored);
}

}  // namespace zephlo::service
