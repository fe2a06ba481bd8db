#include "zephlo/testing/wire_client.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::testing {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

struct WireClient::Impl {
  websocket::stream<beast::tcp_stream> ws{platform::ioContext()};
  beast::flat_buffer buffer;
  websocket::response_type response;
};

WireClient::WireClient() : impl_(std::make_unique<Impl>()) {}
WireClient::~WireClient() = default;

std::shared_ptr<WireClient> WireClient::connect(const std::string& host, std::uint16_t port,
                                                const std::string& target,
                                                const std::optional<std::string>& token) {
  std::shared_ptr<WireClient> client(new WireClient());
  boost::system::error_code ec;
  const auto address = asio::ip::make_address(host, ec);
  if (ec) {
    // Settled on the queue like every other outcome, after the caller set onSettled.
    asio::post(platform::ioContext(), [client] { client->settle(State::Failed); });
    return client;
  }
  Impl& impl = *client->impl_;
  impl.ws.read_message_max(64 * 1024 * 1024);
  impl.ws.binary(true);
  if (token) {
    impl.ws.set_option(websocket::stream_base::decorator([t = *token](websocket::request_type& req) {
      req.set(beast::http::field::authorization, "Bearer " + t);
    }));
  }
  const std::string hostHeader = host + ":" + std::to_string(port);
  beast::get_lowest_layer(impl.ws).async_connect(
      tcp::endpoint(address, port), [client, hostHeader, target](beast::error_code e) {
        if (e) return client->settle(State::Failed);
        Impl& i = *client->impl_;
        // Frames are written in one go and answered by small acknowledgements:
        // without this, Nagle's algorithm holds the tail of each frame until the
        // peer's delayed ACK, adding tens of milliseconds to every round trip.
        beast::get_lowest_layer(i.ws).socket().set_option(tcp::no_delay(true), e);
        i.ws.async_handshake(i.response, hostHeader, target, [client](beast::error_code e2) {
          Impl& i2 = *client->impl_;
          if (e2) {
            if (e2 != websocket::error::upgrade_declined) return client->settle(State::Failed);
            client->refusedStatus_ = static_cast<int>(i2.response.result_int());
            client->refusedBody_ = i2.response.body();
            return client->settle(State::Refused);
          }
          client->settle(State::Open);
          client->writeNext();
          client->read();
        });
      });
  return client;
}

void WireClient::settle(State state) {
  state_ = state;
  if (auto settled = std::move(onSettled)) settled(state);
}

void WireClient::read() {
  impl_->ws.async_read(impl_->buffer, [self = shared_from_this()](beast::error_code ec, std::size_t) {
    if (ec) {
      if (self->state_ == State::Open) self->state_ = State::Closed;
      return;
    }
    const auto data = self->impl_->buffer.cdata();
    self->handleMessage({static_cast<const std::uint8_t*>(data.data()), data.size()},
                        self->impl_->ws.got_text());
    self->impl_->buffer.consume(self->impl_->buffer.size());
    self->read();
  });
}

void WireClient::handleMessage(std::span<const std::uint8_t> bytes, bool text) {
  raw_.push_back({text, Bytes(bytes.begin(), bytes.end())});
  if (text) return;
  const auto decoded = cbor::decodeChecked(bytes);
  const ValueMap* map = decoded.value ? decoded.value->asMap() : nullptr;
  if (!map) {
    ++undecodable_;
    return;
  }
  received_.push_back(*map);
  const Value* ackValue = map->find(wire::kAck);
  if (const std::uint64_t* ack = ackValue ? ackValue->asUInt() : nullptr) {
    lastAck_ = *ack;
    ++ackCount_;
    if (onAck) onAck(*ack);
  }
}

std::uint64_t WireClient::send(std::string_view event, const ValueMap& data) {
  const std::uint64_t id = ++nextId_;
  if (auto bytes = cbor::encodeMessage(event, data, id)) sendRaw(std::move(*bytes));
  return id;
}

void WireClient::sendRaw(Bytes bytes, bool text) {
  if (state_ == State::Failed || state_ == State::Refused || state_ == State::Closed) return;
  queue_.push_back({std::make_shared<const Bytes>(std::move(bytes)), text});
  writeNext();
}

void WireClient::writeNext() {
  if (writing_ || queue_.empty() || state_ != State::Open) return;
  writing_ = true;
  inFlight_ = std::move(queue_.front());
  queue_.pop_front();
  impl_->ws.text(inFlight_.text);
  impl_->ws.async_write(asio::buffer(*inFlight_.bytes),
                        [self = shared_from_this()](beast::error_code ec, std::size_t) {
                          self->writing_ = false;
                          self->inFlight_ = {};
                          if (ec) {
                            self->state_ = State::Closed;
                            return;
                          }
                          ++self->written_;
                          self->writeNext();
                        });
}

void WireClient::close() {
  if (state_ == State::Open && !writing_) {
    state_ = State::Closed;
    impl_->ws.async_close(websocket::close_code::normal,
                          [self = shared_from_this()](beast::error_code) {});
    return;
  }
  state_ = State::Closed;
  beast::error_code ignored;
  beast::get_lowest_layer(impl_->ws).socket().close(ignored);
}

std::vector<std::string> WireClient::texts() const {
  std::vector<std::string> out;
  for (const Raw& r : raw_)
    if (r.text) out.emplace_back(r.bytes.begin(), r.bytes.end());
  return out;
}

std::vector<ValueMap> WireClient::events(std::string_view event) const {
  std::vector<ValueMap> out;
  for (const ValueMap& m : received_) {
    const Value* name = m.find(wire::kEvent);
    const Value* data = m.find(wire::kData);
    if (name && name->asString() && *name->asString() == event && data && data->asMap())
      out.push_back(*data->asMap());
  }
  return out;
}

}  // namespace zephlo::testing
