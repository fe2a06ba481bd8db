// WireClient: a bare client of the service's CBOR sockets. It performs one
// upgrade (with a bearer token when given), sends envelopes with increasing ids,
// and records every map the service sends, acknowledgements included. It never
// reconnects and hides nothing, which makes it the tool for checking exactly what
// the service does on the wire, and for driving many sockets at once in the load
// program.
//
// OWNERSHIP: shared; pending operations keep it alive until close() or a failure.
// THREADING: main queue only (its I/O runs on the main queue's event loop).
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zephlo/base/value.hpp"

namespace zephlo::testing {

class WireClient : public std::enable_shared_from_this<WireClient> {
 public:
  enum class State { Connecting, Open, Refused, Failed, Closed };

  // Connects to ws://HOST:PORT<target>; the upgrade carries
  // "Authorization: Bearer <token>" when a token is given.
  static std::shared_ptr<WireClient> connect(const std::string& host, std::uint16_t port,
                                             const std::string& target,
                                             const std::optional<std::string>& token);
  ~WireClient();
  WireClient(const WireClient&) = delete;
  WireClient& operator=(const WireClient&) = delete;

  State state() const { return state_; }
  bool isSettled() const { return state_ != State::Connecting; }
  // The HTTP status and body of a refused upgrade.
  int refusedStatus() const { return refusedStatus_; }
  const std::string& refusedBody() const { return refusedBody_; }

  // Sends {"event", "data", "id"} with the next id (1 first); returns the id.
  std::uint64_t send(std::string_view event, const ValueMap& data);
  // Sends arbitrary bytes as one binary message (or text), for malformed input.
  void sendRaw(Bytes bytes, bool text = false);
  void close();

  // Every message received, as it came.
  struct Raw {
    bool text = false;
    Bytes bytes;
  };
  const std::vector<Raw>& raw() const { return raw_; }
  // The text messages received, in order.
  std::vector<std::string> texts() const;
  // Every binary message that decoded to a map, in order; the others are counted apart.
  const std::vector<ValueMap>& received() const { return received_; }
  std::size_t undecodable() const { return undecodable_; }
  // The data of every received event with this name.
  std::vector<ValueMap> events(std::string_view event) const;
  // The highest id acknowledged so far, and how many acknowledgements came.
  std::uint64_t lastAck() const { return lastAck_; }
  std::size_t ackCount() const { return ackCount_; }
  std::uint64_t lastSentId() const { return nextId_; }
  // Messages written to the socket so far.
  std::size_t written() const { return written_; }

  // Called once when the upgrade succeeded or failed.
  std::function<void(State)> onSettled;
  // Called for each acknowledgement with its id (for latency measurements).
  std::function<void(std::uint64_t)> onAck;

  struct Impl;

 private:
  WireClient();
  void settle(State state);
  void read();
  void handleMessage(std::span<const std::uint8_t> bytes, bool text);
  void writeNext();

  std::unique_ptr<Impl> impl_;
  State state_ = State::Connecting;
  int refusedStatus_ = 0;
  std::string refusedBody_;
  std::vector<Raw> raw_;
  std::vector<ValueMap> received_;
  std::size_t undecodable_ = 0;
  std::uint64_t nextId_ = 0;
  std::uint64_t lastAck_ = 0;
  std::size_t ackCount_ = 0;
  std::size_t written_ = 0;
  struct Outgoing {
    SharedBytes bytes;
    bool text = false;
  };
  std::deque<Outgoing> queue_;
  Outgoing inFlight_;
  bool writing_ = false;
};

}  // namespace zephlo::testing
