// CBORSocket: the one WebSocket connection class of the SDK. It exchanges CBOR
// maps in the {"event", "data", "id"} envelope, counts the peer's acknowledgements
// into messageLag, pings every 60 s and reconnects by itself after every drop,
// with a jittered back-off between minReconnectDelay and maxReconnectDelay, until
// its owner calls disconnect().
//
// OWNERSHIP: created with `create` and held by its owner through shared_ptr. While
// it is open it also keeps itself alive (its internal disconnect observer holds
// it), so an owner must call disconnect() when done; a socket that is only
// dropped keeps reconnecting for ever. The WebSocket client is owned here and
// replaced on every reconnect; its callbacks hold only weak references back.
//
// THREADING: main queue only. Every public method, every observer and listener,
// the ping timer and the reconnect step run there.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/platform/url_request.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

namespace platform {
class WebSocketClient;
}

class CBORSocket : public std::enable_shared_from_this<CBORSocket> {
 public:
  using RequestFactory = std::function<platform::URLRequest()>;
  // A uniform source of 32-bit random numbers; injectable so the back-off can be
  // checked exactly.
  using RandomSource = std::function<std::uint32_t()>;
  using MessageListener = std::function<void(const ValueMap&)>;

  static constexpr platform::Duration kPingInterval = std::chrono::seconds(60);
  static constexpr double kDefaultMaxReconnectDelay = 30.0;

  // Creates the socket and connects at once. `requestFactory` is called now and
  // again before every reconnect, so each attempt uses a fresh request.
  static std::shared_ptr<CBORSocket> create(RequestFactory requestFactory);
  static std::shared_ptr<CBORSocket> create(RequestFactory requestFactory, RandomSource random);

  CBORSocket(const CBORSocket&) = delete;
  CBORSocket& operator=(const CBORSocket&) = delete;
  ~CBORSocket();

  // Appends a listener for `event`; listeners run in registration order.
  void onMessage(std::string event, MessageListener listener);
  void onConnect(std::function<void()> callback);
  void onDisconnect(std::function<void()> callback);

  // The misspelling is the interface the stream protocol calls.
  bool isConneced() const;
  // Ends the socket for good: tells the disconnect observers, forgets every
  // observer and listener, stops pinging and reconnecting, closes with code 1000.
  void disconnect();
  void sendPing();

  // Messages sent on this connection that the peer has not acknowledged yet; 0
  // before the first acknowledgement.
  std::uint64_t messageLag() const;
  // Sends {"event", "data", "id"} as one binary message. `completion` runs once
  // the write is over: true when the message was written, false when the
  // connection failed under it. It never runs when the message is dropped: after
  // disconnect() or when `data` cannot be encoded.
  void send(std::string_view event, ValueMap data, std::function<void(bool written)> completion = nullptr);

  // Bounds of the reconnect delay, in seconds.
  double maxReconnectDelay() const { return maxReconnectDelay_; }
  void maxReconnectDelay(double seconds) { maxReconnectDelay_ = seconds; }
  double minReconnectDelay() const { return minReconnectDelay_; }
  void minReconnectDelay(double seconds) { minReconnectDelay_ = seconds; }

  // The wait before the reconnect after `attempts` failed attempts, for a random
  // draw `random`, clamped to [minDelay, maxDelay] (the minimum wins).
  static double reconnectDelay(std::int64_t attempts, std::uint32_t random, double minDelay,
                               double maxDelay);

 private:
  // Tests and the fuzzer reach the client callbacks through it.
  friend class CBORSocketTestPeer;
  struct PrivateTag {};

 public:
  // For make_shared inside create() only.
  CBORSocket(PrivateTag, RequestFactory requestFactory, RandomSource random);

 private:
  void start();
  std::unique_ptr<platform::WebSocketClient> makeClient();
  void reconnect();
  void reconnectStep();

  void websocketDidConnect();
  void websocketDidDisconnect(const std::optional<std::string>& error);
  void websocketDidReceiveData(std::span<const std::uint8_t> data);
  void websocketDidReceiveMessage(std::string_view text);

  std::unique_ptr<platform::WebSocketClient> socket_;
  RequestFactory request_;
  std::int64_t attempts_ = 0;
  std::unique_ptr<platform::RepeatingTimer> pingTimer_;
  platform::WorkItemPtr reconnectTimer_;
  std::uint64_t messageId_ = 0;
  std::uint64_t lastMessageAck_ = 0;
  double maxReconnectDelay_ = kDefaultMaxReconnectDelay;
  double minReconnectDelay_ = 0;
  std::map<std::string, std::vector<MessageListener>, std::less<>> onMessageObservers_;
  std::vector<std::function<void()>> onConnectObservers_;
  std::vector<std::function<void()>> onDisconnectObservers_;
  RandomSource random_;
};

}  // namespace zephlo
