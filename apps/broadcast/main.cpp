// zephlo-broadcast: runs one screen broadcast through the Zephlo broadcast
// extension, as the phone's broadcast service would: a screen source delivers
// samples on a capture thread, signals pause, resume and stop the broadcast, and
// the program ends when the extension ends the broadcast (exit status 3) or the
// user stops it (exit status 0). See broadcast_options.hpp for the command line.
#include <csignal>
#include <iostream>
#include <variant>

#include "apps/broadcast/broadcast_host.hpp"
#include "apps/broadcast/broadcast_options.hpp"
#include "apps/broadcast/signal_watcher.hpp"
#include "zephlo/platform/main_queue.hpp"

int main(int argc, char** argv) {
  auto parsed = zephlo::parseBroadcastOptions(argc, argv, std::cout, std::cerr);
  if (auto* status = std::get_if<int>(&parsed)) return *status;

  // A reader of --stats that goes away (`| head -1`) must not end the broadcast:
  // the write fails instead, and the status lines stop.
  std::signal(SIGPIPE, SIG_IGN);
  // Before any thread starts, so that every thread inherits the blocked set and
  // only the watcher takes these signals.
  zephlo::SignalWatcher::blockSignals({SIGUSR1, SIGUSR2, SIGINT, SIGTERM});
  zephlo::platform::MainQueue::shared().reset(zephlo::platform::ClockKind::Real);

  zephlo::BroadcastHost host(std::get<zephlo::BroadcastOptions>(std::move(parsed)));
  zephlo::SignalWatcher signals({SIGUSR1, SIGUSR2, SIGINT, SIGTERM},
                                [&host](int signal) { host.handleSignal(signal); });
  return host.run(std::cerr);
}
