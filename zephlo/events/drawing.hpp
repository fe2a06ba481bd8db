// ZPHDrawing: an image the agent drew over the user's screen, as received in a
// "drawing" event of the stream socket. A plain value object: the socket's delivery
// thread creates it with `from`, the stream protocol hands it to its observers as a
// shared pointer.
//
// THREADING: every getter and setter exchanges its whole field atomically (a
// reader never sees half a rectangle), so the object may be read on one thread
// while another sets a field.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "zephlo/events/atomic_field.hpp"
#include "zephlo/events/geometry.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

class ZPHDrawing {
 public:
  // Where a drawing goes when the agent gave no complete rectangle.
  static constexpr Rect kDefaultBounds{{0, 0}, {1, 1}};

  ZPHDrawing() = default;

  // A drawing from the data of a "drawing" event: a map whose "type" is "Drawing"
  // and that holds "id". "image" is kept when it is a byte string and "mime_type"
  // whenever present. The bounds come from "x", "y", "width" and "height" only
  // when all four are numbers; anything less gives kDefaultBounds. Null when the
  // type or the id is missing.
  static std::shared_ptr<ZPHDrawing> from(const Value& data);

  // The image bytes as sent (null when none came).
  SharedBytes image() const { return image_.load(); }
  void setImage(SharedBytes image) { image_.store(std::move(image)); }
  std::optional<std::string> mime_type() const { return mimeType_.load(); }
  void setMime_type(std::optional<std::string> mimeType) { mimeType_.store(std::move(mimeType)); }
  std::string id() const { return id_.load(); }
  void setId(std::string id) { id_.store(std::move(id)); }
  Rect bounds() const { return bounds_.load(); }
  void setBounds(Rect bounds) { bounds_.store(bounds); }

 private:
  AtomicField<SharedBytes> image_;
  AtomicField<std::optional<std::string>> mimeType_;
  AtomicField<std::string> id_;
  AtomicField<Rect> bounds_;
};

}  // namespace zephlo
