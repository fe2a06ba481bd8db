// LoadRun: many broadcasts at once against a running service, for the load
// benchmark. Each client creates its own session over REST, makes it active in
// full-device mode, opens the session's stream socket with its token, subscribes,
// and then sends a frame on every tick while fewer than `window` of its frames are
// unacknowledged (the SDK drops frames from a lag of 6 on, so the default window
// is 5). It measures what a broadcast would feel: the round trip of each
// acknowledgement, and the message lag seen at every tick, early and late in the
// run, to show whether it grows.
//
// OWNERSHIP: shared; its timer and clients hold it weakly, the caller holds it.
// THREADING: main queue only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo::testing {
class WireClient;
}  // namespace zephlo::testing

namespace zephlo::service {

using testing::WireClient;

struct LoadOptions {
  std::string host = "127.0.0.1";
  std::uint16_t port = 8080;
  int clients = 20;
  double framesPerSecond = 20;
  platform::Duration duration = std::chrono::seconds(10);
  std::uint64_t window = 5;
  // When set, every client streams into this existing session instead of
  // creating and activating its own.
  std::string sessionId;
  // The frames to send, in turn (JPEG files).
  std::vector<SharedBytes> frames;
};

struct LoadFigures {
  int clientsStreaming = 0;
  std::uint64_t sent = 0;
  std::uint64_t acknowledged = 0;
  std::uint64_t heldBack = 0;  // ticks on which the window was full
  std::uint64_t bytes = 0;
  double seconds = 0;
  double ackP50Ms = 0, ackP95Ms = 0, ackP99Ms = 0, ackMaxMs = 0;
  double lagMeanFirstThird = 0, lagMeanLastThird = 0;
  std::uint64_t lagMax = 0;
  std::vector<std::string> failures;

  std::string describe() const;
};

class LoadRun : public std::enable_shared_from_this<LoadRun> {
 public:
  static std::shared_ptr<LoadRun> start(LoadOptions options, std::function<void()> done);
  ~LoadRun();
  LoadRun(const LoadRun&) = delete;
  LoadRun& operator=(const LoadRun&) = delete;

  bool isDone() const { return done_ == nullptr && finished_; }
  const LoadFigures& figures() const { return figures_; }
  // The session ids the clients created.
  std::vector<std::string> sessionIds() const;

 private:
  struct Client {
    std::string sessionId;
    std::shared_ptr<WireClient> socket;
    std::map<std::uint64_t, platform::Duration> sentAt;
    std::uint64_t acknowledged = 0;
    std::size_t nextFrame = 0;
    bool failed = false;
  };

  explicit LoadRun(LoadOptions options);
  void setUp(std::size_t index);
  void connectStream(std::size_t index, const std::string& target, const std::string& token);
  void onReady();
  void tick();
  void finish();
  void awaitAcknowledgements(platform::Duration deadline);
  void settle();
  void fail(std::size_t index, std::string why);

  LoadOptions options_;
  std::function<void()> done_;
  std::vector<Client> clients_;
  std::size_t ready_ = 0;
  bool started_ = false;
  bool finished_ = false;
  platform::Duration startedAt_{};
  std::unique_ptr<platform::RepeatingTimer> ticker_;
  platform::WorkItemPtr stopAt_;
  std::vector<double> ackMs_;
  std::vector<std::pair<platform::Duration, std::uint64_t>> lagSamples_;
  LoadFigures figures_;
};

}  // namespace zephlo::service
