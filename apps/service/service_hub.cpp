#include "apps/service/service_hub.hpp"

#include <algorithm>
#include <array>
#include <chrono>

#include "apps/service/console_socket.hpp"
#include "apps/service/jpeg_quality.hpp"
#include "apps/service/session_socket.hpp"
#include "apps/service/value_fields.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::service {

namespace {

constexpr std::array<std::string_view, 7> kAgentEvents = {
    wire::kTouchEvent, wire::kLaserEvent, wire::kDrawingEvent, wire::kKeyPressEvent,
    wire::kSyncEvent,  wire::kProbeEvent, wire::kUrlEvent};

platform::Duration now() { return platform::MainQueue::shared().now(); }

std::int64_t wallClockMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

template <class T>
std::size_t countLive(const std::vector<std::weak_ptr<T>>& list, auto&& predicate) {
  std::size_t n = 0;
  for (const auto& weak : list)
    if (auto p = weak.lock(); p && predicate(*p)) ++n;
  return n;
}

}  // namespace

std::shared_ptr<ServiceHub> ServiceHub::create() {
  std::shared_ptr<ServiceHub> hub(new ServiceHub());
  hub->start();
  return hub;
}

ServiceHub::~ServiceHub() = default;

bool ServiceHub::isAgentEvent(std::string_view event) {
  return std::find(kAgentEvents.begin(), kAgentEvents.end(), event) != kAgentEvents.end();
}

void ServiceHub::start() {
  std::weak_ptr<ServiceHub> weak = weak_from_this();
  consoleTicker_ = std::make_unique<platform::RepeatingTimer>(kConsoleTick, [weak] {
    if (auto hub = weak.lock()) hub->broadcastSessions();
  });
}

template <class T>
std::vector<std::shared_ptr<T>> ServiceHub::live(std::vector<std::weak_ptr<T>>& list) {
  std::vector<std::shared_ptr<T>> out;
  std::erase_if(list, [&](const std::weak_ptr<T>& weak) {
    auto p = weak.lock();
    if (!p || !p->isOpen()) return true;
    out.push_back(std::move(p));
    return false;
  });
  return out;
}

void ServiceHub::sessionChanged(const Session& session) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  for (const auto& socket : live(sockets_))
    if (socket->kind() == SocketKind::Control && socket->sessionId() == session.id)
      socket->send(wire::kSessionEvent, session.resource);
  broadcastSessions();
}

std::size_t ServiceHub::relay(const Session& session, std::string_view event, const ValueMap& data) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  std::size_t delivered = 0;
  for (const auto& socket : live(sockets_))
    if (socket->kind() == SocketKind::Stream && socket->sessionId() == session.id &&
        socket->send(event, data))
      ++delivered;
  return delivered;
}

std::size_t ServiceHub::dropStreamSockets(const Session& session) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  std::size_t dropped = 0;
  for (const auto& socket : live(sockets_)) {
    if (socket->kind() != SocketKind::Stream || socket->sessionId() != session.id) continue;
    socket->close();
    ++dropped;
  }
  return dropped;
}

void ServiceHub::attach(const std::shared_ptr<SessionSocket>& socket) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  sockets_.push_back(socket);
}

void ServiceHub::onStreamEvent(SessionSocket& socket, std::string_view event, const ValueMap& data) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (event == wire::kFrameEvent) {
    const Bytes* image = bytesField(data, wire::kImage);
    if (!image || data.get(wire::kType) != Value(wire::kFrameType)) return;
    FrameStats::Frame frame;
    if (const std::uint64_t* id = unsignedField(data, wire::kId)) frame.id = *id;
    frame.jpeg = data.get(wire::kImage).sharedBytes();
    frame.quality = estimateJpegQuality(*image);
    if (const std::string* t = textField(data, wire::kTimestamp)) frame.timestamp = *t;
    FrameStats& stats = stats_[socket.sessionId()];
    stats.record(std::move(frame), now());

    ValueMap figures = stats.toMap(now());
    figures.set("session", socket.sessionId());
    figures.set("lag", socket.unacknowledged());
    figures.set("received_at_ms", wallClockMillis());
    for (const auto& console : live(consoles_))
      if (console->watching() == socket.sessionId()) console->sendFrame(figures, stats.latest()->jpeg);
    return;
  }
  if (event == wire::kAliveEvent) {
    const ValueMap reply{{"type", "alive"}, {"session", socket.sessionId()}, {wire::kData, data}};
    for (const auto& console : live(consoles_))
      if (console->watching() == socket.sessionId()) console->sendJson(reply);
  }
  // "screen" and anything else is acknowledged and otherwise ignored.
}

void ServiceHub::attach(const std::shared_ptr<ConsoleSocket>& console) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  consoles_.push_back(console);
  console->sendJson({{"type", "sessions"}, {"sessions", summaries()}});
}

void ServiceHub::watch(ConsoleSocket& console, const std::string& sessionId) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  auto it = stats_.find(sessionId);
  if (it == stats_.end() || !it->second.latest()) return;
  ValueMap figures = it->second.toMap(now());
  figures.set("session", sessionId);
  figures.set("lag", 0u);
  figures.set("received_at_ms", wallClockMillis());
  console.sendFrame(figures, it->second.latest()->jpeg);
}

const FrameStats* ServiceHub::stats(const std::string& sessionId) const {
  auto it = stats_.find(sessionId);
  return it == stats_.end() ? nullptr : &it->second;
}

ValueMap ServiceHub::summary(const Session& session) const {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  ValueMap out = session.resource;
  const FrameStats* figures = stats(session.id);
  out.set("stats", figures ? figures->toMap(now()) : FrameStats().toMap(now()));
  auto isSocket = [&](SocketKind kind) {
    return [&session, kind](const SessionSocket& s) {
      return s.isOpen() && s.kind() == kind && s.sessionId() == session.id;
    };
  };
  out.set("control_sockets", countLive(sockets_, isSocket(SocketKind::Control)));
  out.set("stream_sockets", countLive(sockets_, isSocket(SocketKind::Stream)));
  // Control sockets that hear of changes now: a socket counts once its filter
  // asked for "session".
  out.set("session_listeners", countLive(sockets_, [isControl = isSocket(SocketKind::Control)](const SessionSocket& s) {
            return isControl(s) && s.wants(wire::kSessionEvent);
          }));
  return out;
}

ValueArray ServiceHub::summaries() const {
  ValueArray out;
  for (const Session* session : store_.sessions())
    out.emplace_back(summary(*session));
  return out;
}

void ServiceHub::broadcastSessions() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  auto consoles = live(consoles_);
  if (consoles.empty()) return;
  const ValueMap message{{"type", "sessions"}, {"sessions", summaries()}};
  for (const auto& console : consoles) console->sendJson(message);
}

void ServiceHub::closeAll() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  consoleTicker_.reset();
  for (const auto& socket : live(sockets_)) socket->close();
  for (const auto& console : live(consoles_)) console->close();
}

}  // namespace zephlo::service
