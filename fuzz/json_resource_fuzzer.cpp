// Reply bodies from the service: JSON text into a REST resource, then back out.
// Whatever parses must become the resource, read back through its field
// accessors, and write out as JSON that parses to the same value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "zephlo/core/json.hpp"
#include "zephlo/core/rest_resource.hpp"

namespace {

// Equal as JSON: numbers by their value (1.0 writes as 1 and reads back as an
// integer), everything else by kind and content, maps in their order.
bool sameJson(const zephlo::Value& a, const zephlo::Value& b) {
  if (a.isNumber() && b.isNumber()) return *a.toDouble() == *b.toDouble();
  if (a.type() != b.type()) return false;
  if (const auto* x = a.asArray()) {
    const auto* y = b.asArray();
    if (x->size() != y->size()) return false;
    for (std::size_t i = 0; i < x->size(); ++i)
      if (!sameJson((*x)[i], (*y)[i])) return false;
    return true;
  }
  if (const auto* x = a.asMap()) {
    const auto* y = b.asMap();
    if (x->size() != y->size()) return false;
    for (auto i = x->begin(), j = y->begin(); i != x->end(); ++i, ++j)
      if (!(i->first == j->first) || !sameJson(i->second, j->second)) return false;
    return true;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto value = zephlo::json::parse(text);
  if (!value) return 0;
  if (!value->isMap() && !value->isArray()) std::abort();

  const auto resource = std::make_shared<zephlo::ZPHRESTResource>();
  if (resource->updateResource(*value)) std::abort();
  if (!(resource->resource() == *value)) std::abort();
  (void)resource->id();
  for (const char* name : {"id", "state", "notification_url", "next_registration", "message"})
    (void)resource->field(name);

  std::string error;
  const auto written = zephlo::json::serialize(resource->resource(), &error);
  if (!written) std::abort();  // everything that parses can be written
  const auto reread = zephlo::json::parse(*written);
  if (!reread || !sameJson(*value, *reread)) std::abort();
  return 0;
}
