#include "apps/broadcast/signal_watcher.hpp"

#include <pthread.h>

#include "zephlo/platform/main_queue.hpp"

namespace zephlo {

void SignalWatcher::blockSignals(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (int s : signals) sigaddset(&set, s);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalWatcher::SignalWatcher(std::initializer_list<int> signals, Handler handler)
    : wakeSignal_(*signals.begin()), handler_(std::move(handler)) {
  sigemptyset(&set_);
  for (int s : signals) sigaddset(&set_, s);
  thread_ = std::thread([this] {
    while (true) {
      int signal = 0;
      if (sigwait(&set_, &signal) != 0) continue;
      if (stopping_.load()) return;
      platform::MainQueue::shared().async([handler = handler_, signal] { handler(signal); });
    }
  });
}

SignalWatcher::~SignalWatcher() {
  stopping_.store(true);
  pthread_kill(thread_.native_handle(), wakeSignal_);
  thread_.join();
}

}  // namespace zephlo
