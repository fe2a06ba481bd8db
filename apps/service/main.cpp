// zephlo-service [--listen HOST:PORT]: the local reference service and its agent
// console. Parses its command line, starts the server on the main queue and runs
// until SIGINT or SIGTERM.
#include <csignal>
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include "apps/service/service_server.hpp"
#include "zephlo/platform/main_queue.hpp"

int main(int argc, char** argv) {
  CLI::App app{"Zephlo reference service: sessions, devices, control and stream sockets, agent console"};
  std::string listen = "127.0.0.1:8080";
  app.add_option("--listen", listen, "HOST:PORT to listen on (port 0: any free port)")->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  std::string host;
  std::uint16_t port = 0;
  if (!zephlo::service::parseListenAddress(listen, &host, &port)) {
    std::fprintf(stderr, "zephlo-service: --listen wants HOST:PORT, got %s\n", listen.c_str());
    return 2;
  }

  auto& queue = zephlo::platform::MainQueue::shared();
  queue.reset(zephlo::platform::ClockKind::Real);
  zephlo::service::ServiceServer server;
  std::string error;
  if (!server.listen(host, port, &error)) {
    std::fprintf(stderr, "zephlo-service: %s\n", error.c_str());
    return 1;
  }
  std::printf("zephlo-service listening on %s (console: %s/)\n", server.baseUrl().c_str(),
              server.baseUrl().c_str());
  std::fflush(stdout);

  boost::asio::signal_set signals(zephlo::platform::ioContext(), SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code& ec, int) {
    if (ec) return;
    server.stop();
    queue.stop();
  });
  queue.run();
  return 0;
}
