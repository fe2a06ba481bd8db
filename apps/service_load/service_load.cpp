// zephlo-service-load: many broadcasts at once against a running zephlo-service,
// or frames fed into one existing session. Parses its command line, prepares the
// frames, runs a LoadRun on the main queue and prints its figures.
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>

#include "apps/service_load/frame_pattern.hpp"
#include "apps/service_load/load_run.hpp"
#include "apps/service/service_server.hpp"
#include "zephlo/platform/main_queue.hpp"

int main(int argc, char** argv) {
  CLI::App app{"Streams frames from many clients into a running zephlo-service and reports how it kept up"};
  std::string service = "127.0.0.1:8080";
  zephlo::service::LoadOptions options;
  double seconds = 10;
  std::string screen = "390x844";
  double quality = 0.6;
  int variants = 8;
  app.add_option("--service", service, "HOST:PORT of the service")->capture_default_str();
  app.add_option("--clients", options.clients, "broadcasts at once")->capture_default_str();
  app.add_option("--fps", options.framesPerSecond, "frames per second per client")->capture_default_str();
  app.add_option("--seconds", seconds, "how long to stream")->capture_default_str();
  app.add_option("--window", options.window, "most unacknowledged frames per client")->capture_default_str();
  app.add_option("--size", screen, "frame size WxH in pixels")->capture_default_str();
  app.add_option("--quality", quality, "JPEG quality 0..1")->capture_default_str();
  app.add_option("--variants", variants, "distinct frames sent in turn")->capture_default_str();
  app.add_option("--session", options.sessionId, "feed this existing session instead of creating sessions");
  CLI11_PARSE(app, argc, argv);

  std::uint16_t port = 0;
  int width = 0, height = 0;
  if (!zephlo::service::parseListenAddress(service, &options.host, &port) ||
      std::sscanf(screen.c_str(), "%dx%d", &width, &height) != 2) {
    std::fprintf(stderr, "zephlo-service-load: --service wants HOST:PORT and --size WxH\n");
    return 2;
  }
  options.port = port;
  options.duration = std::chrono::duration_cast<zephlo::platform::Duration>(std::chrono::duration<double>(seconds));
  options.frames = zephlo::service::patternFrames(width, height, variants, quality);
  if (options.frames.empty()) {
    std::fprintf(stderr, "zephlo-service-load: cannot make %dx%d frames\n", width, height);
    return 1;
  }

  auto& queue = zephlo::platform::MainQueue::shared();
  queue.reset(zephlo::platform::ClockKind::Real);
  auto run = zephlo::service::LoadRun::start(options, [&queue] { queue.stop(); });
  if (!run->isDone()) queue.run();
  std::fputs(run->figures().describe().c_str(), stdout);
  return run->figures().failures.empty() ? 0 : 1;
}
