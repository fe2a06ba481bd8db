#include "apps/service/session_store.hpp"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <random>

#include "apps/service/value_fields.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::service {

namespace {

constexpr std::string_view kCreatedAt = "created_at";
constexpr std::string_view kUpdatedAt = "updated_at";
constexpr std::string_view kDeviceType = "Device";
constexpr int kUnprocessable = 422;
constexpr int kConflict = 409;
constexpr int kBadRequest = 400;

// Identifiers and tokens come straight from the system's random source: tokens
// are the sockets' only credential.
std::string randomHex(std::size_t bytes) {
  static std::random_device device;
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes * 2);
  for (std::size_t i = 0; i < bytes; ++i) {
    const auto b = static_cast<unsigned>(device()) & 0xFFu;
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 0x0F]);
  }
  return out;
}

// A version-4 UUID in its canonical lower-case form.
std::string newSessionId() {
  std::string hex = randomHex(16);
  hex[12] = '4';
  hex[16] = "89ab"[hex[16] % 4];
  return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" +
         hex.substr(16, 4) + "-" + hex.substr(20);
}

std::string nowIso() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  std::tm utc{};
  gmtime_r(&t, &utc);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text.data();
}

bool isState(const Value& v) {
  const std::string* s = v.asString();
  return s && (*s == wire::kStatePending || *s == wire::kStateAuthorizing ||
               *s == wire::kStateActive || *s == wire::kStateEnded);
}

bool isMapOrNull(const Value& v) { return v.isMap() || v.isNull(); }

bool isAgent(const Value& v) {
  if (v.isNull()) return true;
  const ValueMap* m = v.asMap();
  return m && m->get(wire::kId).isString() && m->get("name").isString();
}

// Every known field of a session body, with the check its value must pass.
struct FieldRule {
  std::string_view name;
  bool (*valid)(const Value&);
  std::string_view requirement;
};

const std::array<FieldRule, 8> kSessionFields = {{
    {wire::kState, isState, "one of \"pending\", \"authorizing\", \"active\", \"ended\""},
    {wire::kFullDevice, [](const Value& v) { return v.asBool() != nullptr; }, "a boolean"},
    {wire::kRequireConsent, [](const Value& v) { return v.asBool() != nullptr; }, "a boolean"},
    {wire::kScale,
     [](const Value& v) {
       const auto d = v.toDouble();
       return d && std::isfinite(*d) && *d > 0;
     },
     "a positive number"},
    {wire::kDevice, isMapOrNull, "an object or null"},
    {wire::kCustomData, isMapOrNull, "an object or null"},
    {wire::kRedactionSelectors, [](const Value& v) { return v.isArray(); }, "an array"},
    {wire::kAgent, isAgent, "an object with text \"id\" and \"name\", or null"},
}};

}  // namespace

std::string Session::state() const {
  const std::string* s = textField(resource, wire::kState);
  return s ? *s : std::string();
}

std::string Session::token(std::string_view field) const {
  const std::string* s = textField(resource, field);
  return s ? *s : std::string();
}

Session& SessionStore::create(std::string_view socketBase) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  Session& session = sessions_.emplace_back();
  session.id = newSessionId();
  session.code = newCode();
  const std::string base = std::string(socketBase) + "/sessions/" + session.id;
  const std::string created = nowIso();
  session.resource = ValueMap{
      {wire::kType, wire::kSessionType},
      {wire::kId, session.id},
      {wire::kCode, session.code},
      {wire::kState, wire::kStatePending},
      {wire::kScale, kDefaultScale},
      {wire::kFullDevice, false},
      {wire::kRequireConsent, false},
      {wire::kRedactionSelectors, ValueArray{}},
      {wire::kControlUrl, base + "/control"},
      {wire::kControlToken, randomHex(16)},
      {wire::kStreamUrl, base + "/stream"},
      {wire::kStreamToken, randomHex(16)},
      {wire::kDevice, nullptr},
      {wire::kCustomData, ValueMap{}},
      {kCreatedAt, created},
      {kUpdatedAt, created},
  };
  return session;
}

std::string SessionStore::newCode() {
  for (;;) {
    static std::random_device device;
    const std::string code = std::to_string(100000 + device() % 900000);
    if (!find(code)) return code;
  }
}

Session* SessionStore::find(std::string_view idOrCode) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  for (Session& s : sessions_)
    if (s.id == idOrCode) return &s;
  for (Session& s : sessions_)
    if (s.code == idOrCode) return &s;
  return nullptr;
}

std::vector<const Session*> SessionStore::sessions() const {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  std::vector<const Session*> out;
  out.reserve(sessions_.size());
  for (const Session& s : sessions_) out.push_back(&s);
  return out;
}

SessionStore::UpdateResult SessionStore::update(Session& session, const Value& body) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  const ValueMap* fields = body.asMap();
  if (!fields || !fields->isStringKeyed())
    return {ServiceError{kBadRequest, "Expected a JSON object"}, false};
  for (const FieldRule& rule : kSessionFields) {
    const Value* v = fields->find(rule.name);
    if (v && !rule.valid(*v)) {
      std::string message("\"");
      message.append(rule.name).append("\" must be ").append(rule.requirement);
      return {ServiceError{kUnprocessable, std::move(message)}, false};
    }
  }
  if (const Value* state = fields->find(wire::kState);
      state && session.state() == wire::kStateEnded && *state->asString() != wire::kStateEnded)
    return {ServiceError{kConflict, "Session has ended"}, false};
  if (fields->contains(wire::kFullDevice) && session.fullDeviceFailure) {
    ServiceError failure = std::move(*session.fullDeviceFailure);
    session.fullDeviceFailure.reset();
    return {std::move(failure), false};
  }

  ValueMap next = session.resource;
  for (const FieldRule& rule : kSessionFields)
    if (const Value* v = fields->find(rule.name)) next.set(rule.name, *v);
  if (next == session.resource) return {std::nullopt, false};
  next.set(kUpdatedAt, nowIso());
  session.resource = std::move(next);
  return {std::nullopt, true};
}

std::optional<ValueMap> SessionStore::putDevice(std::string_view id, const Value& body,
                                                ServiceError* error) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  const ValueMap* fields = body.asMap();
  if (!fields || !fields->isStringKeyed()) {
    if (error) *error = ServiceError{kBadRequest, "Expected a JSON object"};
    return std::nullopt;
  }
  auto it = devices_.find(id);
  if (it == devices_.end()) {
    it = devices_
             .emplace(std::string(id),
                      ValueMap{{wire::kType, kDeviceType},
                               {wire::kId, std::string(id)},
                               {kCreatedAt, nowIso()}})
             .first;
  }
  ValueMap& device = it->second;
  // The device's own fields come from the body; identity and schedule stay ours.
  for (const auto& [key, value] : *fields) {
    const std::string& name = *key.asString();
    if (name == wire::kType || name == wire::kId || name == kCreatedAt ||
        name == wire::kNextRegistration)
      continue;
    device.set(key, value);
  }
  device.set(wire::kNextRegistration, kRegistrationInterval);
  device.set(kUpdatedAt, nowIso());
  return device;
}

std::optional<ValueMap> SessionStore::deleteDevice(std::string_view id) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  auto it = devices_.find(id);
  if (it == devices_.end()) return std::nullopt;
  ValueMap last = std::move(it->second);
  devices_.erase(it);
  return last;
}

const ValueMap* SessionStore::device(std::string_view id) const {
  auto it = devices_.find(id);
  return it == devices_.end() ? nullptr : &it->second;
}

}  // namespace zephlo::service
