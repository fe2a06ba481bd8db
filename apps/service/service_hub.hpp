// ServiceHub: the live state of the reference service, shared by every connection:
// the session store, the frame figures of each session, and the open session
// sockets and console sockets. It is where REST changes become socket pushes
// ("session" on the control sockets), where the console's agent events are relayed
// to the stream sockets, and where received frames are counted and handed to the
// consoles watching that session.
//
// OWNERSHIP: created by the server and shared (shared_ptr) with every connection,
// so a connection that outlives the listener still finds its hub. The hub holds
// connections weakly: a connection registers itself once it is open and is gone
// from the hub's view as soon as it is destroyed.
// THREADING: main queue only.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "apps/service/frame_stats.hpp"
#include "apps/service/session_store.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo::service {

class SessionSocket;
class ConsoleSocket;

class ServiceHub : public std::enable_shared_from_this<ServiceHub> {
 public:
  static constexpr platform::Duration kConsoleTick = std::chrono::seconds(1);

  static std::shared_ptr<ServiceHub> create();
  // The events an agent may send to a stream socket.
  static bool isAgentEvent(std::string_view event);
  ServiceHub(const ServiceHub&) = delete;
  ServiceHub& operator=(const ServiceHub&) = delete;
  ~ServiceHub();

  SessionStore& store() { return store_; }

  // --- changes from the REST side ---
  // A session was created or its representation changed: pushes "session" to its
  // control sockets and the new list to the consoles.
  void sessionChanged(const Session& session);
  // Sends an agent event to every stream socket of the session that subscribed to
  // it; the number of sockets it went to.
  std::size_t relay(const Session& session, std::string_view event, const ValueMap& data);
  // Closes the session's stream sockets (the client reconnects); how many.
  std::size_t dropStreamSockets(const Session& session);

  // --- the session sockets ---
  void attach(const std::shared_ptr<SessionSocket>& socket);
  // A message (other than "filter") received on a stream socket of the session.
  void onStreamEvent(SessionSocket& socket, std::string_view event, const ValueMap& data);

  // --- the consoles ---
  void attach(const std::shared_ptr<ConsoleSocket>& console);
  // The console now shows this session (empty: none); it gets the latest frame at once.
  void watch(ConsoleSocket& console, const std::string& sessionId);

  // The session with its frame figures and socket counts, as the console shows it.
  ValueMap summary(const Session& session) const;
  // Every session's summary, oldest first.
  ValueArray summaries() const;
  const FrameStats* stats(const std::string& sessionId) const;

  // Closes every open socket (the server is stopping).
  void closeAll();

 private:
  ServiceHub() = default;
  void start();
  void broadcastSessions();
  template <class T>
  static std::vector<std::shared_ptr<T>> live(std::vector<std::weak_ptr<T>>& list);

  SessionStore store_;
  std::map<std::string, FrameStats, std::less<>> stats_;
  std::vector<std::weak_ptr<SessionSocket>> sockets_;
  std::vector<std::weak_ptr<ConsoleSocket>> consoles_;
  std::unique_ptr<platform::RepeatingTimer> consoleTicker_;
};

}  // namespace zephlo::service
