// ZPHRedactionSelector: an ordered list of parts that names a region of the user's
// screen to be redacted; one element of the session's "redaction_selectors".
// Created by the session's `selectors` query and shared with whoever reads it;
// the selector shares its parts.
//
// THREADING: `parts` and `setParts` exchange the whole list atomically, so a
// reader on another thread sees the old or the new list, never a mix.
#pragma once

#include <memory>
#include <vector>

#include "zephlo/events/atomic_field.hpp"
#include "zephlo/events/redaction_selector_part.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

class ZPHRedactionSelector {
 public:
  using Parts = std::vector<std::shared_ptr<ZPHRedactionSelectorPart>>;

  ZPHRedactionSelector() = default;

  // A selector from an array of part dictionaries, in the array's order; elements
  // that are not dictionaries are left out. Null when `value` is not an array.
  static std::shared_ptr<ZPHRedactionSelector> from(const Value& value);

  Parts parts() const { return parts_.load(); }
  void setParts(Parts parts) { parts_.store(std::move(parts)); }

 private:
  AtomicField<Parts> parts_;
};

}  // namespace zephlo
