// ZPHKeyPress: a key the agent typed, as received in a "keypress" event of the
// stream socket. A plain value object: the socket's delivery thread creates it with
// `from`, the stream protocol hands it to its observers as a shared pointer.
//
// THREADING: every getter and setter exchanges its whole field atomically, so the
// object may be read on one thread while another sets a field.
#pragma once

#include <memory>
#include <string>

#include "zephlo/events/atomic_field.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

class ZPHKeyPress {
 public:
  ZPHKeyPress() = default;

  // A key press from the data of a "keypress" event: a map whose "type" is
  // "KeyPress" and that holds "key", "code" and "state". Null otherwise.
  static std::shared_ptr<ZPHKeyPress> from(const Value& data);

  std::string key() const { return key_.load(); }
  void setKey(std::string key) { key_.store(std::move(key)); }
  std::string code() const { return code_.load(); }
  void setCode(std::string code) { code_.store(std::move(code)); }
  std::string state() const { return state_.load(); }
  void setState(std::string state) { state_.store(std::move(state)); }

 private:
  AtomicField<std::string> key_;
  AtomicField<std::string> code_;
  AtomicField<std::string> state_;
};

}  // namespace zephlo
