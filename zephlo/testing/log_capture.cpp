#include "zephlo/testing/log_capture.hpp"

#include "zephlo/platform/log.hpp"

namespace zephlo::testing {

LogCapture::LogCapture() {
  platform::setLogSink([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
  platform::setStdoutSink([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    stdout_.emplace_back(line);
  });
}

LogCapture::~LogCapture() {
  platform::setLogSink(nullptr);
  platform::setStdoutSink(nullptr);
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> LogCapture::stdoutLines() const {
  std::lock_guard lock(mutex_);
  return stdout_;
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
  stdout_.clear();
}

}  // namespace zephlo::testing
