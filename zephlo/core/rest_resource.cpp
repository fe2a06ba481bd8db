#include "zephlo/core/rest_resource.hpp"

#include <utility>

#include "zephlo/core/request.hpp"
#include "zephlo/base/fatal_error.hpp"
#include "zephlo/platform/sequence_checker.hpp"

namespace zephlo {

namespace {
// Written once at start-up, before any request.
std::optional<std::string>& baseUrlStorage() {
  static std::optional<std::string> url;
  return url;
}
}  // namespace

std::optional<std::string> ZPHRESTResource::baseUrl() { return baseUrlStorage(); }
void ZPHRESTResource::setBaseUrl(std::optional<std::string> url) { baseUrlStorage() = std::move(url); }

ZPHRESTResource::ZPHRESTResource() : resource_(ValueMap{}) {}
ZPHRESTResource::~ZPHRESTResource() = default;

Value ZPHRESTResource::field(std::string_view name) const {
  if (const auto* map = resource_.asMap()) return map->get(name);
  return Value();
}

const Value& ZPHRESTResource::resource() const { return resource_; }

std::string ZPHRESTResource::url() const { return ""; }

void ZPHRESTResource::cleanup() { resource_ = ValueMap{}; }

void ZPHRESTResource::fetch(ResourceCallback callback) { send(ValueMap{}, std::move(callback)); }

void ZPHRESTResource::create(const ValueMap& body, ResourceCallback callback) {
  send(ValueMap{{"method", "POST"}, {"body", body}}, std::move(callback));
}

void ZPHRESTResource::update(const ValueMap& body, ResourceCallback callback) {
  send(ValueMap{{"method", "PUT"}, {"body", body}}, std::move(callback));
}

void ZPHRESTResource::delete_(ResourceCallback callback) {
  send(ValueMap{{"method", "DELETE"}}, std::move(callback));
}

std::optional<std::string> ZPHRESTResource::id() const {
  const Value id = field("id");
  if (const auto* text = id.asString()) return *text;
  if (const auto* n = id.asInt()) return std::to_string(*n);
  if (const auto* n = id.asUInt()) return std::to_string(*n);
  return std::nullopt;
}

OptionalError ZPHRESTResource::updateResource(const Value& value) {
  resource_ = value;
  return std::nullopt;
}

void ZPHRESTResource::setResource(Value value) { resource_ = std::move(value); }

void ZPHRESTResource::send(const ValueMap& options, ResourceCallback callback) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  auto self = weak_from_this().lock();
  if (!self) fatalError("a ZPHRESTResource must be owned by a std::shared_ptr to make calls");
  ZPHRequest::request(url(), options,
                      [self = std::move(self), callback = std::move(callback)](
                          OptionalError error, Value body, std::shared_ptr<const HTTPResponse>) {
                        // A failed call leaves the resource as it was; the error body is not applied.
                        if (error) {
                          if (callback) callback(std::move(error), self);
                          return;
                        }
                        auto rejected = self->updateResource(body);
                        if (callback) callback(std::move(rejected), self);
                      });
}

}  // namespace zephlo
