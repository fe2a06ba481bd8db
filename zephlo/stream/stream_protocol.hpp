// ZPHStreamProtocol: what the broadcast extension speaks with the service for
// one session. It opens the session's control socket (pushed session updates)
// and stream socket (frames out; the agent's input events, sync requests and
// probes in) as soon as the session names them, subscribes to their events at
// every connection, hands each agent event to its observers, and sends frames
// as JPEG under the rules of frame transmission (frame_transmission.hpp).
//
// OWNERSHIP: created with `create` and held by the extension controller. The
// protocol holds its session and its two sockets; the session holds the
// protocol back as an observer (it stays registered after close), so the
// session's owner breaks that cycle with ZPHSession::cleanup. Socket listeners
// hold the protocol weakly. Stream-protocol and frame-transmission observers are
// held strongly.
//
// THREADING: main queue. Listeners, connect handlers and observer calls run
// there, one observer after the other. Send callbacks run on the main queue:
// at once for a frame that is not sent, or when the socket reports the write
// done.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "zephlo/base/observer_set.hpp"
#include "zephlo/capture/frame_loop.hpp"
#include "zephlo/core/session.hpp"
#include "zephlo/events/drawing.hpp"
#include "zephlo/events/key_press.hpp"
#include "zephlo/events/laser.hpp"
#include "zephlo/events/touch_event.hpp"
#include "zephlo/socket/cbor_socket.hpp"
#include "zephlo/stream/frame_transmission.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

// One agent input event. The alternative says which message it came from; an
// empty pointer means that message's data did not parse.
using ZPHAgentEvent = std::variant<std::shared_ptr<ZPHDrawing>, std::shared_ptr<ZPHLaser>,
                                   std::shared_ptr<ZPHTouchEvent>, std::shared_ptr<ZPHKeyPress>>;

// True when the event's data did not parse.
bool isNullAgentEvent(const ZPHAgentEvent& event);

class ZPHStreamProtocolObserver {
 public:
  virtual ~ZPHStreamProtocolObserver() = default;
  // For each "drawing", "laser", "touch" or "keypress" message; each observer
  // gets an event object of its own.
  virtual void onAgentEvent(const std::shared_ptr<ZPHSession>& session, const ZPHAgentEvent& event) = 0;
  // For each "sync" message: the agent wants the next frame whatever it holds.
  virtual void onSyncRequest(const std::shared_ptr<ZPHSession>& session) = 0;
};

class ZPHStreamProtocol : public ZPHSessionObserver,
                          public std::enable_shared_from_this<ZPHStreamProtocol> {
 public:
  // Called exactly once: true when the socket wrote the message, false when it
  // was not sent or its write failed.
  using SendCallback = std::function<void(bool sent)>;

  // A closed protocol registered as an observer of `session`; the sockets open
  // on the session's next update.
  static std::shared_ptr<ZPHStreamProtocol> create(std::shared_ptr<ZPHSession> session);

  ZPHStreamProtocol(const ZPHStreamProtocol&) = delete;
  ZPHStreamProtocol& operator=(const ZPHStreamProtocol&) = delete;
  ~ZPHStreamProtocol() override;

  void registerStreamProtocolObserver(std::shared_ptr<ZPHStreamProtocolObserver> observer);
  void removeStreamProtocolObserver(const std::shared_ptr<ZPHStreamProtocolObserver>& observer);
  void registerFrameTransmissionObserver(std::shared_ptr<FrameTransmissionObserver> observer);

  const std::shared_ptr<ZPHSession>& session() const { return session_; }
  // Null until opened, and again after close.
  const std::shared_ptr<CBORSocket>& control() const { return control_; }
  const std::shared_ptr<CBORSocket>& stream() const { return stream_; }

  // Opens whatever the session now allows; ends with the session.
  void sessionDidUpdate(const std::shared_ptr<ZPHSession>& session) override;
  void sessionDidEnd(const std::shared_ptr<ZPHSession>& session) override;

  // Nothing for an ended session; otherwise each missing socket whose URL field
  // is present is created and starts connecting.
  void open();
  // Disconnects and forgets both sockets and every stream-protocol observer.
  void close();

  // A socket whose every (re)connection reads the session's `urlField` and
  // `tokenField` afresh, so a changed URL or token applies at the next reconnect.
  std::shared_ptr<CBORSocket> socket(std::string urlField, std::string tokenField);
  void openControlSocket();
  void openStreamSocket();

  // Now, as "yyyy-MM-dd'T'HH:mm:ssZZZZZ" in the local time zone:
  // 2024-05-01T13:45:07+02:00, or ...Z at UTC.
  static std::string ISODateString();
  static std::string ISODateString(std::chrono::system_clock::time_point time);

  // A "screen" event naming the screen on show; `title` null goes as null.
  void sendScreenDetails(std::string_view className, std::optional<std::string> title);

  // Encodes `image` as JPEG at imageCompression(), numbers it and sends it as a
  // "frame" event. The image is no longer used once the callback runs.
  void sendFrame(FrameImage image, SendCallback withCallback);
  // JPEG quality from the stream socket's message lag (frameQuality).
  float imageCompression() const;
  // The gate of every event sent on the stream socket: false when the socket is
  // missing or not connected, false (and a log line) for a "frame" at the
  // congestion lag, otherwise whether the socket wrote it.
  void sendStreamEvent(std::string_view event, ValueMap withData, SendCallback withCallback);

 private:
  struct PrivateTag {};

 public:
  ZPHStreamProtocol(PrivateTag, std::shared_ptr<ZPHSession> session);

 private:
  template <class Event>
  void dispatchAgentEvent(const ValueMap& data);
  void dispatchSyncRequest();
  // The gate proper, for payloads known to encode.
  // `frameBytes`: the image size of a frame, for the frame-transmission observers.
  void sendThroughGate(std::string_view event, ValueMap data, SendCallback callback, std::size_t frameBytes = 0);

  std::shared_ptr<ZPHSession> session_;
  std::shared_ptr<CBORSocket> control_;
  std::shared_ptr<CBORSocket> stream_;
  ObserverSet<ZPHStreamProtocolObserver> observers_;
  ObserverSet<FrameTransmissionObserver> transmissionObservers_;
};

}  // namespace zephlo
