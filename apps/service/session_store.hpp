// SessionStore: the sessions and devices that the reference service holds, and
// the rules by which REST bodies change them. It knows nothing of HTTP or sockets:
// the REST layer turns its results into replies, the socket hub pushes the
// representations it returns.
//
// A session is created "pending" with an id, a short numeric code, the socket
// URLs on this server and fresh random bearer tokens; its representation is the
// JSON object the client mirrors. Updates merge the known fields of a body after
// checking all of them, so a rejected body changes nothing.
//
// OWNERSHIP: owned by the service hub; sessions live as long as the store.
// THREADING: main queue only.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zephlo/base/value.hpp"

namespace zephlo::service {

// A refusal, with the HTTP status and the "message" of its JSON body.
struct ServiceError {
  int status = 0;
  std::string message;
};

// One session as the service keeps it.
struct Session {
  std::string id;
  std::string code;
  // The representation handed out over REST and pushed on the control socket.
  ValueMap resource;
  // Set by an operator to answer the next full-device change with this error.
  std::optional<ServiceError> fullDeviceFailure;

  std::string state() const;
  std::string token(std::string_view field) const;
};

class SessionStore {
 public:
  struct UpdateResult {
    std::optional<ServiceError> error;
    bool changed = false;
  };

  static constexpr double kDefaultScale = 0.5;
  static constexpr std::uint64_t kRegistrationInterval = 3600;

  SessionStore() = default;
  SessionStore(const SessionStore&) = delete;
  SessionStore& operator=(const SessionStore&) = delete;

  // A new pending session whose sockets live under `socketBase` (for example
  // "ws://127.0.0.1:8080"): <socketBase>/sessions/<id>/control and .../stream.
  Session& create(std::string_view socketBase);
  // The session with this id, or else with this code.
  Session* find(std::string_view idOrCode);
  // Every session, oldest first.
  std::vector<const Session*> sessions() const;

  // Merges the known fields of a PUT body into the session.
  UpdateResult update(Session& session, const Value& body);

  // Stores the device under `id`, merging the body's fields; the stored resource.
  std::optional<ValueMap> putDevice(std::string_view id, const Value& body, ServiceError* error);
  // Removes the device; its last resource, or nothing when it was unknown.
  std::optional<ValueMap> deleteDevice(std::string_view id);
  const ValueMap* device(std::string_view id) const;

 private:
  std::string newCode();

  std::deque<Session> sessions_;
  std::map<std::string, ValueMap, std::less<>> devices_;
};

}  // namespace zephlo::service
