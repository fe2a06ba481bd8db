#include "zephlo/events/key_press.hpp"

#include "zephlo/events/event_fields_internal.hpp"

namespace zephlo {

using events_internal::textForm;
using events_internal::typedDictionary;

std::shared_ptr<ZPHKeyPress> ZPHKeyPress::from(const Value& data) {
  const ValueMap* dictionary = typedDictionary(data, "KeyPress");
  if (!dictionary) return nullptr;
  auto press = std::make_shared<ZPHKeyPress>();
  const Value* key = dictionary->find("key");
  if (!key) return nullptr;
  press->setKey(textForm(*key));
  const Value* code = dictionary->find("code");
  if (!code) return nullptr;
  press->setCode(textForm(*code));
  const Value* state = dictionary->find("state");
  if (!state) return nullptr;
  press->setState(textForm(*state));
  return press;
}

}  // namespace zephlo
