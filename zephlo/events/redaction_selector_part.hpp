// ZPHRedactionSelectorPart: one step of a redaction selector, naming a screen
// element by tag, numeric id and attributes. Parsed leniently from the session's
// "redaction_selectors": each field is taken when it has the expected kind and
// left at its default otherwise. Owned by the selector that lists it (shared).
//
// THREADING: `tag` and `attrs` exchange their whole value atomically and `id` is
// an atomic integer, so a part may be read on one thread while another sets it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zephlo/events/atomic_field.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

class ZPHRedactionSelectorPart {
 public:
  ZPHRedactionSelectorPart() = default;

  // A part from a dictionary: "tag" when it is text, "id" when it is text (read
  // by idFromText; a numeric id is ignored on purpose), "attrs" when it is a
  // dictionary. Never null for a dictionary; null for anything else, so a
  // selector skips such elements.
  static std::shared_ptr<ZPHRedactionSelectorPart> from(const Value& part);

  // The integer at the start of `text`: leading white space, an optional sign,
  // then decimal digits up to the first other character; 0 when no digit follows.
  // Digits beyond the 64-bit range give the limit of that sign.
  static std::int64_t idFromText(std::string_view text);

  std::optional<std::string> tag() const { return tag_.load(); }
  void setTag(std::optional<std::string> tag) { tag_.store(std::move(tag)); }
  std::int64_t id() const { return id_.load(); }
  void setId(std::int64_t id) { id_.store(id); }
  // The attributes as received (null when none came).
  std::shared_ptr<const ValueMap> attrs() const { return attrs_.load(); }
  void setAttrs(std::shared_ptr<const ValueMap> attrs) { attrs_.store(std::move(attrs)); }

 private:
  AtomicField<std::optional<std::string>> tag_;
  std::atomic<std::int64_t> id_{0};
  AtomicField<std::shared_ptr<const ValueMap>> attrs_;
};

}  // namespace zephlo
