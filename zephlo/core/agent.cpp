#include "zephlo/core/agent.hpp"

namespace zephlo {

namespace {
std::string text(const Value& value) {
  if (const auto* s = value.asString()) return *s;
  if (const auto* n = value.asInt()) return std::to_string(*n);
  if (const auto* n = value.asUInt()) return std::to_string(*n);
  return "";
}
}  // namespace

std::optional<ZPHAgent> ZPHAgent::from(const Value& value) {
  const ValueMap* map = value.asMap();
  if (!map) return std::nullopt;
  const Value* id = map->find("id");
  const Value* name = map->find("name");
  if (!id || !name) return std::nullopt;
  return ZPHAgent(text(*id), text(*name));
}

}  // namespace zephlo
