#include "zephlo/socket/cbor_socket.hpp"

#include <cmath>
#include <limits>
#include <random>
#include <utility>

#include "zephlo/base/fatal_error.hpp"
#include "zephlo/platform/log.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/platform/web_socket_client.hpp"
#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo {

namespace {

std::uint32_t systemRandom() {
  thread_local std::mt19937 generator{std::random_device{}()};
  return static_cast<std::uint32_t>(generator());
}

}  // namespace

std::shared_ptr<CBORSocket> CBORSocket::create(RequestFactory requestFactory) {
  return create(std::move(requestFactory), systemRandom);
}

std::shared_ptr<CBORSocket> CBORSocket::create(RequestFactory requestFactory, RandomSource random) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!requestFactory) fatalError("CBORSocket needs a request factory");
  auto socket = std::make_shared<CBORSocket>(PrivateTag{}, std::move(requestFactory),
                                             random ? std::move(random) : RandomSource(systemRandom));
  socket->start();
  return socket;
}

CBORSocket::CBORSocket(PrivateTag, RequestFactory requestFactory, RandomSource random)
    : request_(std::move(requestFactory)), random_(std::move(random)) {
  minReconnectDelay_ = static_cast<double>(random_()) / 4294967295.0 + 0.5;
}

CBORSocket::~CBORSocket() = default;

void CBORSocket::start() {
  socket_ = makeClient();
  // The timer and the internal observer hold the socket on purpose: an open socket
  // lives until disconnect() releases both.
  auto self = shared_from_this();
  pingTimer_ = std::make_unique<platform::RepeatingTimer>(kPingInterval, [self] { self->sendPing(); });
  // Registered first, so every later observer already sees ids counting from 1 again.
  onDisconnectObservers_.push_back([self] {
    self->lastMessageAck_ = 0;
    self->messageId_ = 0;
  });
}

std::unique_ptr<platform::WebSocketClient> CBORSocket::makeClient() {
  auto client = std::make_unique<platform::WebSocketClient>(request_());
  std::weak_ptr<CBORSocket> weak = weak_from_this();
  client->setCallbacks({
      .onConnect = [weak] { if (auto s = weak.lock()) s->websocketDidConnect(); },
      .onDisconnect = [weak](const std::optional<std::string>& error) {
        if (auto s = weak.lock()) s->websocketDidDisconnect(error);
      },
      .onBinary = [weak](std::span<const std::uint8_t> data) {
        if (auto s = weak.lock()) s->websocketDidReceiveData(data);
      },
      .onText = [weak](std::string_view text) {
        if (auto s = weak.lock()) s->websocketDidReceiveMessage(text);
      },
  });
  client->connect();
  return client;
}

void CBORSocket::onMessage(std::string event, MessageListener listener) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  onMessageObservers_[std::move(event)].push_back(std::move(listener));
}

void CBORSocket::onConnect(std::function<void()> callback) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  onConnectObservers_.push_back(std::move(callback));
}

void CBORSocket::onDisconnect(std::function<void()> callback) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  onDisconnectObservers_.push_back(std::move(callback));
}

bool CBORSocket::isConneced() const {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  return socket_ && socket_->isConnected();
}

void CBORSocket::disconnect() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  // Releasing the internal observer may drop the last other reference.
  auto keepAlive = shared_from_this();
  auto observers = onDisconnectObservers_;
  for (const auto& observer : observers)
    if (observer) observer();
  onDisconnectObservers_.clear();
  onConnectObservers_.clear();
  onMessageObservers_.clear();
  observers.clear();
  if (pingTimer_) pingTimer_->invalidate();
  if (reconnectTimer_) reconnectTimer_->cancel();
  if (socket_) socket_->disconnect(platform::WebSocketClient::kNormalClosure);
  socket_.reset();
  request_ = nullptr;
}

void CBORSocket::sendPing() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (socket_) socket_->writePing();
}

std::uint64_t CBORSocket::messageLag() const {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (lastMessageAck_ == 0) return 0;
  // An acknowledgement beyond the last id sent is a broken peer; stopping beats
  // reporting a wrapped, huge lag.
  if (lastMessageAck_ > messageId_) fatalError("Arithmetic overflow in messageLag");
  return messageId_ - lastMessageAck_;
}

void CBORSocket::send(std::string_view event, ValueMap data, std::function<void(bool)> completion) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (messageId_ == std::numeric_limits<std::uint64_t>::max()) fatalError("Message id overflow");
  ++messageId_;  // a dropped message still uses up its id
  if (!socket_) return;
  auto message = cbor::encodeMessage(event, data, messageId_);
  if (!message) return;
  socket_->write(std::move(*message), std::move(completion));
}

double CBORSocket::reconnectDelay(std::int64_t attempts, std::uint32_t random, double minDelay,
                                  double maxDelay) {
  // Single precision, as the back-off has always been computed.
  const float jitter = static_cast<float>(random) * 0x1p-32f * 0.5f;
  const float base = std::pow(static_cast<float>(attempts) * 0.3f, 1.2f);
  const double delay = static_cast<double>(base * (1.0f + jitter));
  return std::max(minDelay, std::min(maxDelay, delay));
}

void CBORSocket::reconnect() {
  if (!socket_ || reconnectTimer_) return;
  std::weak_ptr<CBORSocket> weak = weak_from_this();
  reconnectTimer_ = std::make_shared<platform::WorkItem>([weak] {
    if (auto s = weak.lock()) s->reconnectStep();
  });
  const double delay = reconnectDelay(attempts_, random_(), minReconnectDelay_, maxReconnectDelay_);
  platform::MainQueue::shared().schedule(
      reconnectTimer_,
      std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(delay)));
  if (attempts_ == std::numeric_limits<std::int64_t>::max()) fatalError("Reconnect attempts overflow");
  ++attempts_;
}

void CBORSocket::reconnectStep() {
  reconnectTimer_.reset();
  if (!socket_) {
    platform::writeStdout("Zephlo: Socket tried to reconnect after disconnect");
    return;
  }
  if (!request_) fatalError("CBORSocket reconnect without a request factory");
  // The old client goes without a further disconnect; it has already ended.
  socket_ = makeClient();
}

void CBORSocket::websocketDidConnect() {
  attempts_ = 0;
  auto observers = onConnectObservers_;
  for (const auto& observer : observers)
    if (observer) observer();
}

void CBORSocket::websocketDidDisconnect(const std::optional<std::string>& error) {
  if (error) platform::writeStdout("Zephlo disconnected due to WebSocket error " + *error);
  auto observers = onDisconnectObservers_;
  for (const auto& observer : observers)
    if (observer) observer();
  reconnect();
}

void CBORSocket::websocketDidReceiveData(std::span<const std::uint8_t> bytes) {
  auto decoded = cbor::decode(bytes);
  if (!decoded) return;
  const ValueMap* message = decoded->asMap();
  if (!message || !message->isStringKeyed()) return;
  if (const Value* ack = message->find(wire::kAck)) {
    // Acknowledgements are taken as they come, even when they move backwards.
    if (const auto* id = ack->asUInt()) lastMessageAck_ = *id;
    return;
  }
  const Value* event = message->find(wire::kEvent);
  const Value* payload = message->find(wire::kData);
  if (!event || !event->isString() || !payload || !payload->isMap()) return;
  const ValueMap& data = *payload->asMap();
  if (!data.isStringKeyed()) return;
  const auto found = onMessageObservers_.find(*event->asString());
  if (found == onMessageObservers_.end()) return;
  // A listener may disconnect the socket, which forgets the listeners.
  auto listeners = found->second;
  for (const auto& listener : listeners)
    if (listener) listener(data);
}

void CBORSocket::websocketDidReceiveMessage(std::string_view) {
  // Text frames carry nothing for this protocol.
}

}  // namespace zephlo
