// ObserverSet: the observers of one subject (a session, a stream protocol, a
// frame loop), held strongly, in the order they were added; adding one twice
// keeps one. Notifications go over a snapshot, so an observer may add or remove
// observers (itself too) from inside its call; the change applies from the next
// notification.
//
// THREADING: the subject's queue (the main queue in this system).
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

namespace zephlo {

template <class T>
class ObserverSet {
 public:
  void add(std::shared_ptr<T> observer) {
    if (observer && std::find(observers_.begin(), observers_.end(), observer) == observers_.end())
      observers_.push_back(std::move(observer));
  }
  void remove(const std::shared_ptr<T>& observer) { std::erase(observers_, observer); }
  void clear() { observers_.clear(); }
  bool empty() const { return observers_.empty(); }

  // The observers as they are now, for a subject that tells them more than once.
  std::vector<std::shared_ptr<T>> snapshot() const { return observers_; }

  // Calls `tell(observer)` for each observer registered when it starts.
  template <class Tell>
  void notify(Tell&& tell) const {
    for (const auto& observer : snapshot()) tell(*observer);
  }

 private:
  std::vector<std::shared_ptr<T>> observers_;
};

}  // namespace zephlo
