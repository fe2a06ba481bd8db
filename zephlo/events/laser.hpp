// ZPHLaser: the agent's laser pointer at one moment of a stroke ("touchstart",
// "touchmove", "touchend"), as received in a "laser" event of the stream socket. A
// plain value object: the socket's delivery thread creates it with `from`, the
// stream protocol hands it to its observers as a shared pointer.
//
// THREADING: every getter and setter exchanges its whole field atomically, so the
// object may be read on one thread while another sets a field.
#pragma once

#include <memory>
#include <string>

#include "zephlo/events/atomic_field.hpp"
#include "zephlo/events/geometry.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

class ZPHLaser {
 public:
  ZPHLaser() = default;

  // A laser from the data of a "laser" event: a map whose "type" is "Laser" and
  // that holds "id" and "state". The position is ("x", "y") when both are numbers,
  // else (0, 0). Null when the type, the id or the state is missing.
  static std::shared_ptr<ZPHLaser> from(const Value& data);

  bool isStart() const { return state() == "touchstart"; }
  bool isMove() const { return state() == "touchmove"; }
  bool isEnd() const { return state() == "touchend"; }

  std::string id() const { return id_.load(); }
  void setId(std::string id) { id_.store(std::move(id)); }
  std::string state() const { return state_.load(); }
  void setState(std::string state) { state_.store(std::move(state)); }
  Point position() const { return position_.load(); }
  void setPosition(Point position) { position_.store(position); }

 private:
  AtomicField<std::string> id_;
  AtomicField<std::string> state_;
  AtomicField<Point> position_;
};

}  // namespace zephlo
