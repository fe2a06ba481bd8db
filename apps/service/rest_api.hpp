// RestApi: the service's HTTP resources, as the client and the console use them.
//
//   POST   /api/1/sessions                    a new pending session (201)
//   GET    /api/1/sessions/{id or code}       the session
//   PUT    /api/1/sessions/{id or code}       merge "state", "full_device", "scale", "device",
//                                             "custom_data", "redaction_selectors", "agent",
//                                             "require_consent"; a change is pushed on the
//                                             control sockets
//   GET|PUT|DELETE /api/1/devices/{id}        the device resource
//
// and, for the agent console and for tests that need to steer the service:
//
//   GET    /console/api/sessions              every session with its frame figures
//   GET    /console/api/sessions/{id}         one of them
//   GET    /console/api/sessions/{id}/frame   the latest frame (image/jpeg)
//   POST   /console/api/sessions/{id}/events  {"event", "data"}: an agent event for the stream sockets
//   POST   /console/api/sessions/{id}/drop-stream          close the stream sockets
//   PUT|DELETE /console/api/sessions/{id}/full-device-failure
//                                             {"status", "message"}: answer the next
//                                             full-device change with this error
//
// Every refusal is a JSON object with a "message": 400 for a body that is not a
// JSON object, 422 for a field of the wrong kind, 404 for an unknown resource, 405
// for a method a resource does not have, 409 for reviving an ended session.
//
// OWNERSHIP: a view of the hub; made per request or held by the connection.
// THREADING: main queue only.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "zephlo/base/value.hpp"

namespace zephlo::service {

class ServiceHub;

struct RestRequest {
  std::string method;  // "GET", "PUT", ...
  std::string target;  // path and query
  std::string body;
  // Where this service's sockets are reached by the caller, e.g. "ws://127.0.0.1:8080".
  std::string socketBase;
};

struct RestReply {
  int status = 200;
  std::string contentType;
  std::string body;
};

class RestApi {
 public:
  explicit RestApi(ServiceHub& hub) : hub_(hub) {}

  // Whether this API serves the target's path.
  static bool serves(std::string_view target);
  RestReply handle(const RestRequest& request);

 private:
  RestReply sessions(const RestRequest& request, std::string_view rest);
  RestReply devices(const RestRequest& request, std::string_view rest);
  RestReply console(const RestRequest& request, std::string_view rest);

  ServiceHub& hub_;
};

// JSON text from the network as a value: only an object or an array is read, and
// anything else is refused before it reaches the JSON reader.
std::optional<Value> parseJsonContainer(std::string_view text, std::string* error);

// {"message": message} with the status.
RestReply errorReply(int status, std::string_view message);
RestReply jsonReply(int status, const Value& body);

}  // namespace zephlo::service
