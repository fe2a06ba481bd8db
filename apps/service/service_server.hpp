// ServiceServer: the reference service's listener. It accepts TCP connections on
// the main queue's event loop and gives each to an HttpConnection; all of the
// service's state lives in the hub that the connections share.
//
// OWNERSHIP: owned by the program (or the test). Its listening state is shared
// with the pending accept, so destroying the server while an accept is pending is
// safe; stop() closes the listener and every connection, whose pending handlers
// then finish on the main queue.
// THREADING: main queue only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zephlo::service {

class ServiceHub;

class ServiceServer {
 public:
  ServiceServer();
  ~ServiceServer();
  ServiceServer(const ServiceServer&) = delete;
  ServiceServer& operator=(const ServiceServer&) = delete;

  // Binds HOST:PORT (port 0: the OS picks one) and starts accepting. False, with a
  // reason in `error`, when the address does not resolve or cannot be bound.
  bool listen(std::string_view host, std::uint16_t port, std::string* error = nullptr);
  void stop();

  std::uint16_t port() const;
  // "http://HOST:PORT" of the bound address.
  std::string baseUrl() const;
  ServiceHub& hub();
  // Connections (HTTP, session sockets, consoles) whose handlers are still running.
  long liveConnections() const;

  struct Listener;

 private:
  std::shared_ptr<Listener> listener_;
};

// Splits "HOST:PORT" (the port may be 0). False for anything else.
bool parseListenAddress(std::string_view text, std::string* host, std::uint16_t* port);

}  // namespace zephlo::service
