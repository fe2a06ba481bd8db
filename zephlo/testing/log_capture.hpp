// LogCapture: collects the lines written to the system log and to standard output
// while it lives, so tests can check exactly what was said. Any thread.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace zephlo::testing {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;        // system log
  std::vector<std::string> stdoutLines() const;  // standard output
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::vector<std::string> stdout_;
};

}  // namespace zephlo::testing
