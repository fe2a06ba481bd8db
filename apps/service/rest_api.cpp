#include "apps/service/rest_api.hpp"

#include <vector>

#include "apps/service/service_hub.hpp"
#include "apps/service/value_fields.hpp"
#include "zephlo/core/json.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::service {

namespace {

constexpr std::string_view kJsonType = wire::kJsonContentType;
constexpr std::string_view kConsoleApiPath = "/console/api";
constexpr int kOk = 200;
constexpr int kCreated = 201;
constexpr int kBadRequest = 400;
constexpr int kNotFound = 404;
constexpr int kMethodNotAllowed = 405;
constexpr int kUnprocessable = 422;

std::string_view pathOf(std::string_view target) {
  return target.substr(0, target.find_first_of("?#"));
}

// The segments after `prefix`; empty segments (a trailing "/") are dropped.
std::vector<std::string_view> segments(std::string_view path) {
  std::vector<std::string_view> out;
  while (!path.empty()) {
    const auto slash = path.find('/');
    const auto part = path.substr(0, slash);
    if (!part.empty()) out.push_back(part);
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return out;
}

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix &&
         (s.size() == prefix.size() || s[prefix.size()] == '/');
}

// The body as JSON; an empty body is an empty object when `emptyIsObject`.
std::optional<Value> parseBody(const RestRequest& request, RestReply* error, bool emptyIsObject = false) {
  if (request.body.empty() && emptyIsObject) return Value(ValueMap{});
  std::string reason;
  auto value = parseJsonContainer(request.body, &reason);
  if (!value) {
    *error = errorReply(kBadRequest, request.body.empty() ? "Expected a JSON body" : "Invalid JSON: " + reason);
    return std::nullopt;
  }
  if (!value->isMap()) {
    *error = errorReply(kBadRequest, "Expected a JSON object");
    return std::nullopt;
  }
  return value;
}

RestReply notAllowed() { return errorReply(kMethodNotAllowed, "Method not allowed"); }

}  // namespace

std::optional<Value> parseJsonContainer(std::string_view text, std::string* error) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos || (text[first] != '{' && text[first] != '[')) {
    if (error) *error = "expected an object or an array";
    return std::nullopt;
  }
  return json::parse(text, error);
}

RestReply errorReply(int status, std::string_view message) {
  return jsonReply(status, Value(ValueMap{{wire::kMessage, message}}));
}

RestReply jsonReply(int status, const Value& body) {
  std::string error;
  auto text = json::serialize(body, &error);
  if (!text) return {500, std::string(kJsonType), R"({"message":"Reply could not be written"})"};
  return {status, std::string(kJsonType), std::move(*text)};
}

bool RestApi::serves(std::string_view target) {
  const auto path = pathOf(target);
  return startsWith(path, wire::kSessionsPath) || startsWith(path, wire::kDevicesPath) ||
         startsWith(path, kConsoleApiPath);
}

RestReply RestApi::handle(const RestRequest& request) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  const auto path = pathOf(request.target);
  if (startsWith(path, wire::kSessionsPath))
    return sessions(request, path.substr(wire::kSessionsPath.size()));
  if (startsWith(path, wire::kDevicesPath))
    return devices(request, path.substr(wire::kDevicesPath.size()));
  if (startsWith(path, kConsoleApiPath)) return console(request, path.substr(kConsoleApiPath.size()));
  return errorReply(kNotFound, "Not found");
}

RestReply RestApi::sessions(const RestRequest& request, std::string_view rest) {
  const auto parts = segments(rest);
  SessionStore& store = hub_.store();
  RestReply error;
  if (parts.empty()) {
    if (request.method != "POST") return notAllowed();
    if (!parseBody(request, &error, true)) return error;
    Session& session = store.create(request.socketBase);
    hub_.sessionChanged(session);
    return jsonReply(kCreated, Value(session.resource));
  }
  if (parts.size() != 1) return errorReply(kNotFound, "Not found");
  Session* session = store.find(parts[0]);
  if (!session) return errorReply(kNotFound, "Session not found");
  if (request.method == "GET") return jsonReply(kOk, Value(session->resource));
  if (request.method != "PUT") return notAllowed();
  const auto body = parseBody(request, &error);
  if (!body) return error;
  const auto result = store.update(*session, *body);
  if (result.error) return errorReply(result.error->status, result.error->message);
  if (result.changed) hub_.sessionChanged(*session);
  return jsonReply(kOk, Value(session->resource));
}

RestReply RestApi::devices(const RestRequest& request, std::string_view rest) {
  const auto parts = segments(rest);
  if (parts.size() != 1) return errorReply(kNotFound, "Not found");
  const std::string id(parts[0]);
  SessionStore& store = hub_.store();
  if (request.method == "GET") {
    const ValueMap* device = store.device(id);
    return device ? jsonReply(kOk, Value(*device)) : errorReply(kNotFound, "Device not found");
  }
  if (request.method == "PUT") {
    RestReply error;
    const auto body = parseBody(request, &error);
    if (!body) return error;
    ServiceError refusal;
    const auto device = store.putDevice(id, *body, &refusal);
    return device ? jsonReply(kOk, Value(*device)) : errorReply(refusal.status, refusal.message);
  }
  if (request.method == "DELETE") {
    const auto device = store.deleteDevice(id);
    return device ? jsonReply(kOk, Value(*device)) : errorReply(kNotFound, "Device not found");
  }
  return notAllowed();
}

RestReply RestApi::console(const RestRequest& request, std::string_view rest) {
  const auto parts = segments(rest);
  if (parts.empty() || parts[0] != "sessions") return errorReply(kNotFound, "Not found");
  if (parts.size() == 1) {
    if (request.method != "GET") return notAllowed();
    return jsonReply(kOk, Value(ValueMap{{"sessions", hub_.summaries()}}));
  }
  Session* session = hub_.store().find(parts[1]);
  if (!session) return errorReply(kNotFound, "Session not found");
  if (parts.size() == 2) {
    if (request.method != "GET") return notAllowed();
    return jsonReply(kOk, Value(hub_.summary(*session)));
  }
  if (parts.size() != 3) return errorReply(kNotFound, "Not found");
  const std::string_view action = parts[2];
  RestReply error;

  if (action == "frame") {
    if (request.method != "GET") return notAllowed();
    const FrameStats* stats = hub_.stats(session->id);
    if (!stats || !stats->latest()) return errorReply(kNotFound, "No frame yet");
    const Bytes& jpeg = *stats->latest()->jpeg;
    return {kOk, std::string(wire::kJpegMimeType), std::string(jpeg.begin(), jpeg.end())};
  }
  if (action == "events") {
    if (request.method != "POST") return notAllowed();
    const auto body = parseBody(request, &error);
    if (!body) return error;
    const std::string* event = textField(*body->asMap(), wire::kEvent);
    const Value data = body->asMap()->get(wire::kData);
    if (!event || !ServiceHub::isAgentEvent(*event))
      return errorReply(kUnprocessable, "\"event\" must name an agent event");
    if (!data.isMap() && !data.isNull()) return errorReply(kUnprocessable, "\"data\" must be an object");
    const std::size_t delivered = hub_.relay(*session, *event, data.isMap() ? *data.asMap() : ValueMap{});
    return jsonReply(kOk, Value(ValueMap{{"delivered", delivered}}));
  }
  if (action == "drop-stream") {
    if (request.method != "POST") return notAllowed();
    return jsonReply(kOk, Value(ValueMap{{"dropped", hub_.dropStreamSockets(*session)}}));
  }
  if (action == "full-device-failure") {
    if (request.method == "DELETE") {
      session->fullDeviceFailure.reset();
      return jsonReply(kOk, Value(ValueMap{}));
    }
    if (request.method != "PUT") return notAllowed();
    const auto body = parseBody(request, &error);
    if (!body) return error;
    const auto status = body->asMap()->get("status").toDouble();
    const std::string* message = textField(*body->asMap(), wire::kMessage);
    if (!status || *status < 400 || *status > 599 || *status != static_cast<int>(*status))
      return errorReply(kUnprocessable, "\"status\" must be an HTTP error status (400 to 599)");
    session->fullDeviceFailure =
        ServiceError{static_cast<int>(*status), message ? *message : "Full device mode refused"};
    return jsonReply(kOk, Value(ValueMap{{"status", static_cast<int>(*status)},
                                          {wire::kMessage, session->fullDeviceFailure->message}}));
  }
  return errorReply(kNotFound, "Not found");
}

}  // namespace zephlo::service
