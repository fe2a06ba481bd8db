// RefusingPort: a loopback port that refuses every connection for as long as the
// object lives. It holds the port bound without listening, so no other test running
// beside it can take the port over (a port that was merely free a moment ago can).
#pragma once

#include <string>
#include <string_view>

namespace zephlo::testing {

class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  int port() const { return port_; }
  // "<scheme>://127.0.0.1:<port><path>".
  std::string url(std::string_view path = "", std::string_view scheme = "http") const;

 private:
  int fd_ = -1;
  int port_ = 0;
};

}  // namespace zephlo::testing
