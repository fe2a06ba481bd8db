#include "zephlo/testing/refusing_port.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "zephlo/base/fatal_error.hpp"

namespace zephlo::testing {

RefusingPort::RefusingPort() {
  fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    fatalError("RefusingPort could not bind a loopback port");
  port_ = ntohs(address.sin_port);
}

RefusingPort::~RefusingPort() {
  if (fd_ >= 0) ::close(fd_);
}

std::string RefusingPort::url(std::string_view path, std::string_view scheme) const {
  return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

}  // namespace zephlo::testing
