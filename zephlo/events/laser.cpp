#include "zephlo/events/laser.hpp"

#include "zephlo/events/event_fields_internal.hpp"

namespace zephlo {

using events_internal::coordinate;
using events_internal::textForm;
using events_internal::typedDictionary;

std::shared_ptr<ZPHLaser> ZPHLaser::from(const Value& data) {
  const ValueMap* dictionary = typedDictionary(data, "Laser");
  if (!dictionary) return nullptr;
  auto laser = std::make_shared<ZPHLaser>();
  const Value* id = dictionary->find("id");
  if (!id) return nullptr;
  laser->setId(textForm(*id));
  const Value* state = dictionary->find("state");
  if (!state) return nullptr;
  laser->setState(textForm(*state));
  auto x = coordinate(dictionary->find("x"));
  auto y = coordinate(dictionary->find("y"));
  if (x && y) laser->setPosition(Point{*x, *y});
  return laser;
}

}  // namespace zephlo
