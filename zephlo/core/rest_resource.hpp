// ZPHRESTResource: the base of every object that mirrors a JSON resource of the
// service (ZPHSession, ZPHDevice). It holds the last representation the service
// returned, offers field access on it and maps fetch, create, update and delete
// onto REST calls through ZPHRequest.
//
// A subclass returns the resource's URL from `url` (built on the process-wide
// `baseUrl`) and usually validates representations in `updateResource`: store
// the value with `setResource` and return null, or return an error and leave the
// resource untouched. Every reply body goes through `updateResource`, so a
// rejected one never replaces the state.
//
// Ownership: resources live in std::shared_ptr (create them with make_shared); a
// call in flight holds its resource until its completion has run, and the
// completion hands the resource back to the callback.
//
// THREADING: every method belongs to the main queue. Completions run where
// ZPHRequest calls back: the main queue, except for transport errors, which
// reach the callback on the HTTP thread with the resource untouched. A callback
// that needs the main queue for a transport error posts itself there.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zephlo/base/error.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

class ZPHRESTResource : public std::enable_shared_from_this<ZPHRESTResource> {
 public:
  // (error or null, the resource the call was made on).
  using ResourceCallback =
      std::function<void(OptionalError error, std::shared_ptr<ZPHRESTResource> resource)>;

  // The service's API base, null until set at start-up.
  static std::optional<std::string> baseUrl();
  static void setBaseUrl(std::optional<std::string> url);

  // An empty resource map.
  ZPHRESTResource();
  virtual ~ZPHRESTResource();
  ZPHRESTResource(const ZPHRESTResource&) = delete;
  ZPHRESTResource& operator=(const ZPHRESTResource&) = delete;

  // resource[name], or null when absent (or when the resource is not a map).
  virtual Value field(std::string_view name) const;
  // The current representation: a map, or null after a reply without content.
  virtual const Value& resource() const;
  // The resource's absolute URL; "" here, every subclass overrides it.
  virtual std::string url() const;
  // Replaces the resource with an empty map; subclasses extend it.
  virtual void cleanup();

  // GET url.
  virtual void fetch(ResourceCallback callback);
  // POST `body` (sent exactly as given) to url.
  virtual void create(const ValueMap& body, ResourceCallback callback);
  // PUT `body` (sent exactly as given) to url.
  virtual void update(const ValueMap& body, ResourceCallback callback);
  // DELETE url, no body. Named with a trailing underscore because `delete` is a
  // C++ keyword; the trailing underscore keeps the verb's name recognisable.
  virtual void delete_(ResourceCallback callback);

  // The "id" field as text: its text, or the decimal form of an integer; null
  // when absent or of another kind.
  virtual std::optional<std::string> id() const;

  // Takes a representation from the service. The base stores whatever it is
  // given (null included) and returns null; overrides validate first.
  virtual OptionalError updateResource(const Value& value);

 protected:
  // Replaces the representation without validation, for `updateResource`
  // overrides that have accepted a value.
  void setResource(Value value);

 private:
  // The one completion that all four verbs share.
  void send(const ValueMap& options, ResourceCallback callback);

  Value resource_;
};

}  // namespace zephlo
