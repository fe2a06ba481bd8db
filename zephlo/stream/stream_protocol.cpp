#include "zephlo/stream/stream_protocol.hpp"

#include <cstdio>
#include <ctime>
#include <utility>
#include <vector>

#include "zephlo/core/request.hpp"
#include "zephlo/platform/jpeg_encoder.hpp"
#include "zephlo/platform/log.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo {

namespace {

// The stream socket as frame transmission sees it.
class SocketChannel final : public FrameChannel {
 public:
  explicit SocketChannel(const CBORSocket& socket) : socket_(socket) {}
  bool isConneced() const override { return socket_.isConneced(); }
  std::uint64_t messageLag() const override { return socket_.messageLag(); }

 private:
  const CBORSocket& socket_;
};

void call(const ZPHStreamProtocol::SendCallback& callback, bool sent) {
  if (callback) callback(sent);
}

ValueMap eventsFilter(std::initializer_list<std::string_view> names) {
  ValueArray events;
  for (auto name : names) events.emplace_back(name);
  return ValueMap{{wire::kFilterEvents, Value(std::move(events))}};
}

}  // namespace

bool isNullAgentEvent(const ZPHAgentEvent& event) {
  return std::visit([](const auto& pointer) { return pointer == nullptr; }, event);
}

std::shared_ptr<ZPHStreamProtocol> ZPHStreamProtocol::create(std::shared_ptr<ZPHSession> session) {
  auto protocol = std::make_shared<ZPHStreamProtocol>(PrivateTag{}, std::move(session));
  if (protocol->session_) protocol->session_->registerSessionObserver(protocol);
  return protocol;
}

ZPHStreamProtocol::ZPHStreamProtocol(PrivateTag, std::shared_ptr<ZPHSession> session)
    : session_(std::move(session)) {}

ZPHStreamProtocol::~ZPHStreamProtocol() {
  // An open socket keeps itself alive and reconnecting until it is told to stop.
  if (control_) control_->disconnect();
  if (stream_) stream_->disconnect();
}

void ZPHStreamProtocol::registerStreamProtocolObserver(std::shared_ptr<ZPHStreamProtocolObserver> observer) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  observers_.add(std::move(observer));
}

void ZPHStreamProtocol::removeStreamProtocolObserver(const std::shared_ptr<ZPHStreamProtocolObserver>& observer) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  observers_.remove(observer);
}

void ZPHStreamProtocol::registerFrameTransmissionObserver(std::shared_ptr<FrameTransmissionObserver> observer) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  transmissionObservers_.add(std::move(observer));
}

void ZPHStreamProtocol::sessionDidUpdate(const std::shared_ptr<ZPHSession>&) { open(); }

void ZPHStreamProtocol::sessionDidEnd(const std::shared_ptr<ZPHSession>&) { close(); }

void ZPHStreamProtocol::open() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!session_ || session_->isEnded()) return;
  openControlSocket();
  openStreamSocket();
}

void ZPHStreamProtocol::close() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  // Held until both are disconnected: the control socket may be the one whose
  // pushed "ended" brought us here.
  auto control = std::move(control_);
  auto stream = std::move(stream_);
  control_ = nullptr;
  stream_ = nullptr;
  if (control) control->disconnect();
  if (stream) stream->disconnect();
  observers_.clear();
}

std::shared_ptr<CBORSocket> ZPHStreamProtocol::socket(std::string urlField, std::string tokenField) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  // Weak: the socket outlives nothing it serves, and the protocol (which holds
  // the session) disconnects its sockets when it goes.
  std::weak_ptr<ZPHSession> weakSession = session_;
  return CBORSocket::create([weakSession, urlField = std::move(urlField), tokenField = std::move(tokenField)] {
    std::string url;
    std::string token;
    if (auto session = weakSession.lock()) {
      url = session->field(urlField).stringValue().value_or("");
      token = session->field(tokenField).stringValue().value_or("");
    }
    return ZPHRequest::socketRequest(url, token);
  });
}

void ZPHStreamProtocol::openControlSocket() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!session_ || session_->field(wire::kControlUrl).isNull() || control_) return;
  control_ = socket(std::string(wire::kControlUrl), std::string(wire::kControlToken));
  std::weak_ptr<ZPHStreamProtocol> weak = weak_from_this();

  control_->onMessage(std::string(wire::kSessionEvent), [weak](const ValueMap& data) {
    // A rejected representation is ignored; the next push or fetch brings a good one.
    if (auto self = weak.lock(); self && self->session_) self->session_->updateResource(Value(data));
  });
  control_->onConnect([weak] {
    auto self = weak.lock();
    if (!self) return;
    // Whatever changed while we were away arrives by REST; pushes cover the rest.
    if (self->session_) self->session_->fetch();
    if (self->control_) self->control_->send(wire::kFilter, eventsFilter({wire::kSessionEvent}));
  });
}

void ZPHStreamProtocol::openStreamSocket() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!session_ || session_->field(wire::kStreamUrl).isNull() || stream_) return;
  stream_ = socket(std::string(wire::kStreamUrl), std::string(wire::kStreamToken));
  std::weak_ptr<ZPHStreamProtocol> weak = weak_from_this();

  stream_->onMessage(std::string(wire::kDrawingEvent), [weak](const ValueMap& data) {
    if (auto self = weak.lock()) self->dispatchAgentEvent<ZPHDrawing>(data);
  });
  stream_->onMessage(std::string(wire::kLaserEvent), [weak](const ValueMap& data) {
    if (auto self = weak.lock()) self->dispatchAgentEvent<ZPHLaser>(data);
  });
  stream_->onMessage(std::string(wire::kTouchEvent), [weak](const ValueMap& data) {
    if (auto self = weak.lock()) self->dispatchAgentEvent<ZPHTouchEvent>(data);
  });
  stream_->onMessage(std::string(wire::kKeyPressEvent), [weak](const ValueMap& data) {
    if (auto self = weak.lock()) self->dispatchAgentEvent<ZPHKeyPress>(data);
  });
  stream_->onMessage(std::string(wire::kSyncEvent), [weak](const ValueMap&) {
    if (auto self = weak.lock()) self->dispatchSyncRequest();
  });
  stream_->onMessage(std::string(wire::kProbeEvent), [weak](const ValueMap& data) {
    // Liveness answers bypass the frame gate: the agent asks exactly because
    // the stream looks stuck.
    if (auto self = weak.lock(); self && self->stream_) self->stream_->send(wire::kAliveEvent, data);
  });
  stream_->onConnect([weak] {
    auto self = weak.lock();
    // "url" is asked for although nothing listens for it; the service expects
    // the full list.
    if (self && self->stream_)
      self->stream_->send(wire::kFilter,
                          eventsFilter({wire::kDrawingEvent, wire::kLaserEvent, wire::kUrlEvent, wire::kTouchEvent,
                                        wire::kKeyPressEvent, wire::kSyncEvent, wire::kProbeEvent}));
  });
}

template <class Event>
void ZPHStreamProtocol::dispatchAgentEvent(const ValueMap& data) {
  const Value value(data);
  // Parsed once per observer, so no observer sees another's changes to its event.
  observers_.notify([&](ZPHStreamProtocolObserver& observer) {
    observer.onAgentEvent(session_, ZPHAgentEvent(Event::from(value)));
  });
}

void ZPHStreamProtocol::dispatchSyncRequest() {
  observers_.notify([&](ZPHStreamProtocolObserver& observer) { observer.onSyncRequest(session_); });
}

std::string ZPHStreamProtocol::ISODateString() { return ISODateString(std::chrono::system_clock::now()); }

std::string ZPHStreamProtocol::ISODateString(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm local{};
  if (!localtime_r(&seconds, &local)) return "";
  char text[64];
  int length = std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", local.tm_year + 1900,
                             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  std::string result(text, static_cast<std::size_t>(length));
  long offset = local.tm_gmtoff;
  if (offset == 0) return result + "Z";
  const char sign = offset < 0 ? '-' : '+';
  if (offset < 0) offset = -offset;
  length = std::snprintf(text, sizeof text, "%c%02ld:%02ld", sign, offset / 3600, offset / 60 % 60);
  result.append(text, static_cast<std::size_t>(length));
  // Historical zones with second offsets keep them, as the extended ISO form does.
  if (offset % 60 != 0) {
    length = std::snprintf(text, sizeof text, ":%02ld", offset % 60);
    result.append(text, static_cast<std::size_t>(length));
  }
  return result;
}

void ZPHStreamProtocol::sendScreenDetails(std::string_view className, std::optional<std::string> title) {
  sendStreamEvent(wire::kScreenEvent,
                  ValueMap{{wire::kType, "Screen"},
                           {"class", className},
                           {"title", title ? Value(std::move(*title)) : Value()},
                           {wire::kTimestamp, ISODateString()}},
                  [](bool) {});
}

float ZPHStreamProtocol::imageCompression() const {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  return frameQuality(stream_ ? stream_->messageLag() : 0);
}

void ZPHStreamProtocol::sendFrame(FrameImage image, SendCallback withCallback) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  const float quality = imageCompression();
  SharedBytes jpeg = image ? platform::encodeJpeg(*image, quality) : nullptr;
  // Encoder failures are not detected: whatever the buffer holds goes out.
  if (!jpeg) jpeg = std::make_shared<const Bytes>();
  // Done with the bitmap: the frame loop may release it once we call back.
  image.reset();

  // Numbered before the gate, so a dropped frame leaves a gap the agent can see.
  const std::uint32_t id = nextFrameId();
  const std::size_t size = jpeg->size();
  sendThroughGate(wire::kFrameEvent, framePayload(id, std::move(jpeg), ISODateString()), std::move(withCallback),
                  size);
}

void ZPHStreamProtocol::sendStreamEvent(std::string_view event, ValueMap withData, SendCallback withCallback) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  // The socket silently drops a message it cannot encode and never completes
  // it; refusing it here keeps the callback's once-always promise.
  if (!cbor::encodeMessage(event, withData, 0)) {
    call(withCallback, false);
    return;
  }
  sendThroughGate(event, std::move(withData), std::move(withCallback));
}

void ZPHStreamProtocol::sendThroughGate(std::string_view event, ValueMap data, SendCallback callback,
                                        std::size_t frameBytes) {
  const bool isFrame = event == wire::kFrameEvent;
  const std::optional<SocketChannel> channel = stream_ ? std::optional<SocketChannel>(*stream_) : std::nullopt;
  const GateVerdict verdict = gate(channel ? &*channel : nullptr, event);
  if (verdict != GateVerdict::Send) {
    if (verdict == GateVerdict::Congested) platform::log(kCongestionLogLine);
    if (isFrame) transmissionObservers_.notify([&](FrameTransmissionObserver& o) { o.frameRefused(verdict); });
    call(callback, false);
    return;
  }
  if (isFrame) transmissionObservers_.notify([&](FrameTransmissionObserver& o) { o.frameHandedToSocket(frameBytes); });
  // On a connected socket the write's completion runs exactly once, also when the
  // connection drops under it or the socket is disconnected meanwhile; it says
  // whether the bytes went out, so a frame cut off is sent again.
  std::weak_ptr<ZPHStreamProtocol> weak = weak_from_this();
  stream_->send(event, std::move(data), [weak, isFrame, frameBytes, callback = std::move(callback)](bool written) {
    if (auto self = weak.lock(); self && isFrame)
      self->transmissionObservers_.notify(
          [&](FrameTransmissionObserver& o) { o.frameWriteDone(frameBytes, written); });
    call(callback, written);
  });
}

}  // namespace zephlo
