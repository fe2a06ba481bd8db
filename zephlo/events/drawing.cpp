#include "zephlo/events/drawing.hpp"

#include "zephlo/events/event_fields_internal.hpp"

namespace zephlo {

using events_internal::coordinate;
using events_internal::textForm;
using events_internal::typedDictionary;

std::shared_ptr<ZPHDrawing> ZPHDrawing::from(const Value& data) {
  const ValueMap* dictionary = typedDictionary(data, "Drawing");
  if (!dictionary) return nullptr;
  auto drawing = std::make_shared<ZPHDrawing>();
  const Value* id = dictionary->find("id");
  if (!id) return nullptr;
  drawing->setId(textForm(*id));

  if (const Value* image = dictionary->find("image")) drawing->setImage(image->sharedBytes());
  // A null under "mime_type", made here or received, means the same as no entry.
  if (const Value* mimeType = dictionary->find("mime_type"); mimeType && !mimeType->isNullOrCborNull())
    drawing->setMime_type(textForm(*mimeType));

  // A partial rectangle is discarded whole rather than merged with the default.
  auto x = coordinate(dictionary->find("x"));
  auto y = coordinate(dictionary->find("y"));
  auto height = coordinate(dictionary->find("height"));
  auto width = coordinate(dictionary->find("width"));
  if (x && y && height && width)
    drawing->setBounds(Rect{{*x, *y}, {*width, *height}});
  else
    drawing->setBounds(kDefaultBounds);
  return drawing;
}

}  // namespace zephlo
