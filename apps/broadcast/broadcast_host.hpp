// BroadcastHost: what the phone's broadcast service does for an extension, for
// one broadcast in zephlo-broadcast. It sets up the process-wide services the
// extension reads (bundle, keychain store, screen, log target), creates the
// extension, starts the screen source with a sink that hands each sample to the
// extension (the frame source keeps the newest; the host keeps no queue), turns
// signals into the broadcast's lifecycle, and ends the program when the
// broadcast ends:
//
//   SIGUSR1             broadcastPaused
//   SIGUSR2             broadcastResumed
//   SIGINT, SIGTERM     broadcastFinished, then exit status 0
//   the source ends     (the display went away, the user stopped sharing)
//                       broadcastFinished, its one line on stderr, exit status 0
//   finishBroadcastWithError
//                       capture stops, "Broadcast ended: <description>" on
//                       stderr, exit status 3
//
// For a real screen the main screen's size in points follows the samples'
// pixel size: pixels / scale, the scale being --screen's when given, else the
// desktop's own, else 1.
//
// Owned by main, on the main thread, which runs the main queue inside `run`.
#pragma once

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

#include "apps/broadcast/broadcast_options.hpp"
#include "apps/broadcast/screen_source.hpp"

namespace zephlo {

class BroadcastStats;
class ZephloReplayKitExtension;
struct Error;

class BroadcastHost {
 public:
  static constexpr int kExitStopped = 0;
  static constexpr int kExitSetupFailed = 2;
  static constexpr int kExitEndedByExtension = 3;

  explicit BroadcastHost(BroadcastOptions options);
  ~BroadcastHost();
  BroadcastHost(const BroadcastHost&) = delete;
  BroadcastHost& operator=(const BroadcastHost&) = delete;

  // Runs the broadcast on the calling thread, which must be the main queue's,
  // until it ends; returns the program's exit status. Set-up failures (bundle,
  // keychain, screen source) are written to `err` and return kExitSetupFailed.
  int run(std::ostream& err);

  // The signals' effects, on the main queue.
  void handleSignal(int signal);

 private:
  std::optional<std::string> setUp();
  // Stops capturing and makes `run` return `status`; later calls change nothing.
  void end(int status);
  void broadcastDidFinish(const Error& error);
  void sourceDidEnd(const std::string& why);
  ScreenSource::Sink makeSink();

  BroadcastOptions options_;
  std::ostream* err_ = nullptr;
  std::unique_ptr<ScreenSource> source_;
  std::shared_ptr<ZephloReplayKitExtension> extension_;
  std::shared_ptr<BroadcastStats> stats_;
  // The pixel scale of a real screen; nothing for a synthetic one.
  std::optional<double> realScreenScale_;
  std::optional<int> status_;
};

// The screen source that `options` name, or why there is none.
std::unique_ptr<ScreenSource> makeScreenSource(const BroadcastOptions& options, std::string* error);

}  // namespace zephlo
