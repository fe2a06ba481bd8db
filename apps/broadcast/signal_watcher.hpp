// SignalWatcher: turns the process's signals into calls on the main queue. The
// signals it watches are blocked in every thread (call `blockSignals` in main
// before any thread starts, so every later thread inherits the mask) and taken
// one at a time by a thread of its own with sigwait, which then posts the
// handler to the main queue. Handlers are thus ordinary main-queue code rather
// than async-signal handlers.
//
// Owned by main. Construct and destroy it on the main thread.
//
// THREADING: the watcher thread only waits for signals and posts; it learns that
// it should end from an atomic flag, set before it is woken with a signal of
// its own set.
#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <initializer_list>
#include <thread>

namespace zephlo {

class SignalWatcher {
 public:
  using Handler = std::function<void(int signal)>;

  // Blocks `signals` in the calling thread and in every thread started after.
  static void blockSignals(std::initializer_list<int> signals);

  // Watches `signals` (already blocked) and runs `handler` on the main queue for
  // each one received.
  SignalWatcher(std::initializer_list<int> signals, Handler handler);
  ~SignalWatcher();
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;

 private:
  sigset_t set_;
  int wakeSignal_;
  Handler handler_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace zephlo
