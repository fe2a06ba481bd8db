#include "zephlo/events/redaction_selector.hpp"

namespace zephlo {

std::shared_ptr<ZPHRedactionSelector> ZPHRedactionSelector::from(const Value& value) {
  const ValueArray* elements = value.asArray();
  if (!elements) return nullptr;
  Parts parts;
  parts.reserve(elements->size());
  for (const Value& element : *elements)
    if (auto part = ZPHRedactionSelectorPart::from(element)) parts.push_back(std::move(part));
  auto selector = std::make_shared<ZPHRedactionSelector>();
  selector->setParts(std::move(parts));
  return selector;
}

}  // namespace zephlo
