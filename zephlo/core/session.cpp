#include "zephlo/core/session.hpp"

#include <charconv>
#include <utility>

#include "zephlo/core/device.hpp"
#include "zephlo/core/device_info.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo {

namespace {

// The base hands back the resource the call was made on, which is this session.
ZPHRESTResource::ResourceCallback toResourceCallback(ZPHSession::SessionCallback callback) {
  if (!callback) return nullptr;
  return [callback = std::move(callback)](OptionalError error, std::shared_ptr<ZPHRESTResource> resource) {
    callback(std::move(error), std::static_pointer_cast<ZPHSession>(std::move(resource)));
  };
}

// A "code" is used as text whatever its JSON kind.
std::optional<std::string> asText(const Value& value) {
  if (const auto* s = value.asString()) return *s;
  if (const auto* n = value.asInt()) return std::to_string(*n);
  if (const auto* n = value.asUInt()) return std::to_string(*n);
  if (const auto d = value.toDouble()) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, *d);
    return std::string(buffer, result.ptr);
  }
  return std::nullopt;
}

bool isText(const Value& value, std::string_view expected) {
  const auto* s = value.asString();
  return s && *s == expected;
}

bool boolField(const Value& value) {
  const auto* b = value.asBool();
  return b && *b;
}

// A copy, so later changes by the host do not reach a request in flight.
Value customDataCopy() { return Value(ZPHDevice::instance()->customData()); }

}  // namespace

ZPHSession::ZPHSession(PrivateTag) {}

std::shared_ptr<ZPHSession> ZPHSession::initWithResource(ValueMap resource) {
  auto session = std::make_shared<ZPHSession>(PrivateTag{});
  // Trusted as given: the extension seeds it with just the id it stored.
  session->ZPHRESTResource::updateResource(Value(std::move(resource)));
  return session;
}

void ZPHSession::create(SessionCallback callback) {
  auto session = initWithResource();
  session->ZPHRESTResource::create(
      ValueMap{}, [callback = std::move(callback)](OptionalError error, std::shared_ptr<ZPHRESTResource> resource) {
        if (!callback) return;
        if (error) {
          callback(std::move(error), nullptr);
          return;
        }
        callback(std::nullopt, std::static_pointer_cast<ZPHSession>(std::move(resource)));
      });
}

std::string ZPHSession::url(const std::optional<std::string>& idOrCode) {
  std::string url = ZPHRESTResource::baseUrl().value_or("");
  url += wire::kSessionsPath;
  if (idOrCode) {
    url += '/';
    url += *idOrCode;
  }
  return url;
}

std::string ZPHSession::url() const {
  if (auto sessionId = id()) return url(sessionId);
  return url(asText(code()));
}

void ZPHSession::fetch(SessionCallback callback) { ZPHRESTResource::fetch(toResourceCallback(std::move(callback))); }

void ZPHSession::update(const ValueMap& map, SessionCallback callback) {
  ZPHRESTResource::update(map, toResourceCallback(std::move(callback)));
}

void ZPHSession::activate(SessionCallback callback) {
  update(ValueMap{{wire::kState, wire::kStateActive},
                  {wire::kDevice, ZPHDeviceInfo::info()},
                  {wire::kCustomData, customDataCopy()}},
         std::move(callback));
}

void ZPHSession::end(SessionCallback callback) {
  update(ValueMap{{wire::kState, wire::kStateEnded}}, std::move(callback));
}

void ZPHSession::fullDevice(bool value, SessionCallback callback) {
  update(ValueMap{{wire::kFullDevice, value}}, std::move(callback));
}

void ZPHSession::registerSessionObserver(std::shared_ptr<ZPHSessionObserver> observer) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  observers_.add(std::move(observer));
}

void ZPHSession::removeSessionObserver(const std::shared_ptr<ZPHSessionObserver>& observer) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  observers_.remove(observer);
}

void ZPHSession::cleanup() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  observers_.clear();
  ZPHRESTResource::cleanup();
}

Value ZPHSession::code() const { return field(wire::kCode); }
Value ZPHSession::state() const { return field(wire::kState); }
bool ZPHSession::isPending() const { return isText(state(), wire::kStatePending); }
bool ZPHSession::isAuthorizing() const { return isText(state(), wire::kStateAuthorizing); }
bool ZPHSession::isActive() const { return isText(state(), wire::kStateActive); }
bool ZPHSession::isEnded() const { return isText(state(), wire::kStateEnded); }

bool ZPHSession::hasAgent() const {
  const ValueMap* map = resource().asMap();
  return map && map->contains(wire::kAgent);
}

std::optional<ZPHAgent> ZPHSession::agent() const { return ZPHAgent::from(field(wire::kAgent)); }

std::vector<std::shared_ptr<ZPHRedactionSelector>> ZPHSession::selectors() const {
  std::vector<std::shared_ptr<ZPHRedactionSelector>> selectors;
  const Value field = this->field(wire::kRedactionSelectors);
  const ValueArray* elements = field.asArray();
  if (!elements) return selectors;
  for (const Value& element : *elements)
    if (auto selector = ZPHRedactionSelector::from(element)) selectors.push_back(std::move(selector));
  return selectors;
}

bool ZPHSession::requireConsent() const { return boolField(field(wire::kRequireConsent)); }
bool ZPHSession::fullDevice() const { return boolField(field(wire::kFullDevice)); }

double ZPHSession::scale() const {
  const auto number = field(wire::kScale).toDouble();
  float scale = number ? static_cast<float>(*number) : 0.5f;
  // Only an upper cap: a NaN fails the comparison and stays NaN.
  if (scale > 1.0f) scale = 1.0f;
  return static_cast<double>(scale);
}

OptionalError ZPHSession::updateResource(const Value& value) {
  const ValueMap* map = value.asMap();
  if (!map) return ZPHError(std::string(kNotADictionaryMessage), 0);
  if (!isText(map->get(wire::kType), wire::kSessionType)) return ZPHError(std::string(kNotASessionMessage), 0);
  if (!map->contains("id")) return ZPHError(std::string(kMissingIdMessage), 0);
  if (!map->contains(wire::kState)) return ZPHError(std::string(kMissingStateMessage), 0);

  const bool wasEnded = isEnded();
  setResource(value);
  const bool didEnd = !wasEnded && isEnded();

  // One snapshot for both rounds: an observer added by an update hears of the
  // next one.
  const auto snapshot = observers_.snapshot();
  const auto self = std::static_pointer_cast<ZPHSession>(shared_from_this());
  for (const auto& observer : snapshot) observer->sessionDidUpdate(self);
  if (didEnd)
    for (const auto& observer : snapshot) observer->sessionDidEnd(self);
  return std::nullopt;
}

}  // namespace zephlo
