#include "zephlo/events/redaction_selector_part.hpp"

#include <limits>

namespace zephlo {

std::shared_ptr<ZPHRedactionSelectorPart> ZPHRedactionSelectorPart::from(const Value& part) {
  const ValueMap* dictionary = part.asMap();
  if (!dictionary) return nullptr;
  auto result = std::make_shared<ZPHRedactionSelectorPart>();
  if (const Value* tag = dictionary->find("tag"); tag && tag->asString()) result->setTag(*tag->asString());
  if (const Value* id = dictionary->find("id"); id && id->asString()) result->setId(idFromText(*id->asString()));
  if (const Value* attrs = dictionary->find("attrs"); attrs && attrs->asMap())
    result->setAttrs(std::make_shared<const ValueMap>(*attrs->asMap()));
  return result;
}

std::int64_t ZPHRedactionSelectorPart::idFromText(std::string_view text) {
  std::size_t i = 0;
  auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; };
  while (i < text.size() && isBlank(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  // Accumulate towards the sign's limit so that the most negative value fits too.
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  std::int64_t value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    int digit = text[i] - '0';
    if (negative) {
      if (value < (kMin + digit) / 10) return kMin;
      value = value * 10 - digit;
    } else {
      if (value > (kMax - digit) / 10) return kMax;
      value = value * 10 + digit;
    }
  }
  return value;
}

}  // namespace zephlo
