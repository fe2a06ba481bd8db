// ZPHTouchEvent: one touch of the agent on the user's screen ("touchstart",
// "touchmove", "touchend") with the time it happened, as received in a "touch"
// event of the stream socket, and the small geometry that gestures are built from.
// A plain value object: the socket's delivery thread creates it with `from`, the
// stream protocol hands it to its observers as a shared pointer.
//
// THREADING: every getter and setter exchanges its whole field atomically, so the
// object may be read on one thread while another sets a field. The geometry
// operations read each field once through its getter.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zephlo/events/atomic_field.hpp"
#include "zephlo/events/geometry.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

class ZPHTouchEvent {
 public:
  // The agent's timestamps carry milliseconds, and every four-digit year fits.
  using Timestamp = std::chrono::sys_time<std::chrono::milliseconds>;

  // What `duration` answers when there is no other event to measure from.
  static constexpr double kNoDuration = 1.7976931348623157e308;

  ZPHTouchEvent() = default;

  // A touch from the data of a "touch" event: a map whose "type" is "Touch";
  // the rest is read by withDictionary. Null otherwise.
  static std::shared_ptr<ZPHTouchEvent> from(const Value& data);

  // A touch from a dictionary that holds "id", "state" and "timestamp" (null when
  // one is missing). The timestamp is kept when it is text in the agent's format
  // (parseTimestamp); otherwise the event is kept without one. The position is
  // ("x", "y") when both are numbers, else (0, 0).
  static std::shared_ptr<ZPHTouchEvent> withDictionary(const ValueMap& dictionary);

  // Reads the agent's timestamps, "yyyy-MM-dd'T'HH:mm:ss.SSSZ": milliseconds and a
  // numeric offset without a colon, e.g. 2024-05-01T13:45:07.123+0200. Strict:
  // every digit must be there, every field in range, nothing may follow.
  static std::optional<Timestamp> parseTimestamp(std::string_view text);

  bool isStart() const { return state() == "touchstart"; }
  bool isMove() const { return state() == "touchmove"; }
  bool isEnd() const { return state() == "touchend"; }

  // Seconds from `other` to this event, positive when this one is later;
  // kNoDuration when `other` is null, 0 when either event lacks a timestamp.
  double duration(const ZPHTouchEvent* other) const;
  // This position minus `other`'s; a null `other` counts as (0, 0).
  Point delta(const ZPHTouchEvent* other) const;
  // The length of `delta`, in the 32-bit precision of the agent's coordinates.
  double distance(const ZPHTouchEvent* other) const;
  // This position relative to the frame's origin; the frame's size plays no part.
  Point positionInFrame(const Rect& frame) const;
  // A new event with the same id, state and timestamp, its position multiplied by
  // the factors (width horizontally, height vertically).
  std::shared_ptr<ZPHTouchEvent> scaledCopy(const Size& factors) const;

  std::optional<Timestamp> timestamp() const { return timestamp_.load(); }
  void setTimestamp(std::optional<Timestamp> timestamp) { timestamp_.store(timestamp); }
  std::string id() const { return id_.load(); }
  void setId(std::string id) { id_.store(std::move(id)); }
  std::string state() const { return state_.load(); }
  void setState(std::string state) { state_.store(std::move(state)); }
  Point position() const { return position_.load(); }
  void setPosition(Point position) { position_.store(position); }

 private:
  AtomicField<std::optional<Timestamp>> timestamp_;
  AtomicField<std::string> id_;
  AtomicField<std::string> state_;
  AtomicField<Point> position_;
};

}  // namespace zephlo
