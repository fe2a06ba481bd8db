// AtomicField: one field of an event object whose getter and setter exchange the
// whole value at once, so a reader on another thread sees the old or the new
// text, point or rectangle, never a mix of both. Owned by the object it is a
// field of.
//
// THREADING: load and store may be called from any thread. The previous value is
// released after the lock is dropped, so a large value never ends its life while
// other readers wait.
#pragma once

#include <mutex>
#include <utility>

namespace zephlo {

template <class T>
class AtomicField {
 public:
  AtomicField() = default;
  explicit AtomicField(T value) : value_(std::move(value)) {}
  AtomicField(const AtomicField&) = delete;
  AtomicField& operator=(const AtomicField&) = delete;

  T load() const {
    std::lock_guard lock(mutex_);
    return value_;
  }

  void store(T value) {
    {
      std::lock_guard lock(mutex_);
      std::swap(value_, value);
    }
    // `value` now holds the previous content and is released here, unlocked.
  }

 private:
  mutable std::mutex mutex_;
  T value_{};
};

}  // namespace zephlo
