// ZPHSession: the client's mirror of one screen-sharing session on the service.
// It is loaded and changed over REST (fetch, update and the verbs built on it),
// receives the representations that the control socket pushes, validates every
// representation before it replaces the state, and tells its observers after
// every accepted one, and once more when the session enters "ended".
//
// OWNERSHIP: always held in std::shared_ptr (initWithResource, create). The
// extension controller owns the session; a REST call in flight holds it until
// its callback has run. Observers are held strongly. An observer that itself
// holds the session (the stream protocol, the controller) forms a cycle that
// removeSessionObserver or cleanup breaks: whoever is done with a session calls
// cleanup.
//
// THREADING: main queue. Observers are called synchronously on the thread that
// delivered the representation, before updateResource returns. Verb callbacks
// run where the REST layer calls back: the main queue, except a transport error,
// which arrives on the HTTP thread with the session untouched.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zephlo/core/agent.hpp"
#include "zephlo/base/error.hpp"
#include "zephlo/base/observer_set.hpp"
#include "zephlo/core/rest_resource.hpp"
#include "zephlo/events/redaction_selector.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

class ZPHSession;

class ZPHSessionObserver {
 public:
  virtual ~ZPHSessionObserver() = default;
  // After every accepted representation.
  virtual void sessionDidUpdate(const std::shared_ptr<ZPHSession>& session) = 0;
  // After the update notifications, when the accepted representation moved the
  // state into "ended".
  virtual void sessionDidEnd(const std::shared_ptr<ZPHSession>& session) = 0;
};

class ZPHSession : public ZPHRESTResource {
 public:
  // (error or null, the session the call was made on; null for a failed create).
  using SessionCallback = std::function<void(OptionalError error, std::shared_ptr<ZPHSession> session)>;

  // The four rejections of updateResource, all with code 0.
  static constexpr std::string_view kNotADictionaryMessage = "Expecting session to be a dictionary";
  static constexpr std::string_view kNotASessionMessage = "Expected a Session resource";
  static constexpr std::string_view kMissingIdMessage = "Expected session to have an ID";
  static constexpr std::string_view kMissingStateMessage = "Expected session to have a state field";

  // A session holding `resource` as given: not validated, no one told. The
  // extension starts from {"id": ...} and loads the rest with a verb. An empty
  // map gives the empty session.
  static std::shared_ptr<ZPHSession> initWithResource(ValueMap resource = {});

  // POSTs {} to the collection URL: (error, null) on failure, (null, the new
  // session) on success.
  static void create(SessionCallback callback);
  // baseUrl + "/api/1/sessions/" + idOrCode, or the collection URL for null.
  static std::string url(const std::optional<std::string>& idOrCode);

  ZPHSession(const ZPHSession&) = delete;
  ZPHSession& operator=(const ZPHSession&) = delete;

  // The verbs of the base stay reachable; the session's own take a
  // SessionCallback. Call them without an argument for no callback.
  using ZPHRESTResource::create;
  using ZPHRESTResource::fetch;
  using ZPHRESTResource::update;
  using ZPHRESTResource::url;

  // url(id) when the session has an id, else url(code).
  std::string url() const override;

  void fetch(SessionCallback callback = nullptr);
  void update(const ValueMap& map, SessionCallback callback = nullptr);
  // PUT {"state": "active", "device": ZPHDeviceInfo::info(), "custom_data": a
  // copy of the device's custom data}.
  void activate(SessionCallback callback = nullptr);
  // PUT {"state": "ended"}.
  void end(SessionCallback callback = nullptr);
  // PUT {"full_device": value}.
  void fullDevice(bool value, SessionCallback callback = nullptr);

  // Observers form a set: adding one twice changes nothing.
  void registerSessionObserver(std::shared_ptr<ZPHSessionObserver> observer);
  void removeSessionObserver(const std::shared_ptr<ZPHSessionObserver>& observer);
  // Forgets every observer, then empties the resource.
  void cleanup() override;

  // Raw "code" and "state" fields (null when absent).
  Value code() const;
  Value state() const;
  bool isPending() const;
  bool isAuthorizing() const;
  bool isActive() const;
  bool isEnded() const;
  // "agent" is present; a null counts as present.
  bool hasAgent() const;
  std::optional<ZPHAgent> agent() const;
  // The parsable "redaction_selectors", in order.
  std::vector<std::shared_ptr<ZPHRedactionSelector>> selectors() const;
  // The boolean field; false when absent or not a boolean.
  bool requireConsent() const;
  bool fullDevice() const;
  // The capture scale: "scale" in single precision, at most 1.0, 0.5 when it is
  // not a number. No lower bound: 0 and negative values pass, NaN stays NaN.
  double scale() const;

  // Validates `value` (map, "type" "Session", "id" and "state" present, in that
  // order); an accepted one replaces the resource and is announced to a
  // snapshot of the observers. Returns the first failed check, or null.
  OptionalError updateResource(const Value& value) override;

 private:
  struct PrivateTag {};

 public:
  explicit ZPHSession(PrivateTag);

 private:
  ObserverSet<ZPHSessionObserver> observers_;
};

}  // namespace zephlo
