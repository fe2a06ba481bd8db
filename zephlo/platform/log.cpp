#include "zephlo/platform/log.hpp"

#include <syslog.h>

#include <cstdio>
#include <mutex>

namespace zephlo::platform {

namespace {
std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}
LineSink& logSink() {
  static LineSink s;
  return s;
}
LineSink& stdoutSink() {
  static LineSink s;
  return s;
}
LogTarget& target() {
  static LogTarget t = LogTarget::Stderr;
  return t;
}
}  // namespace

void log(std::string_view line) {
  std::lock_guard lock(sinkMutex());
  if (logSink()) return logSink()(line);
  if (target() == LogTarget::Syslog) {
    syslog(LOG_NOTICE, "%.*s", static_cast<int>(line.size()), line.data());
    return;
  }
  std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
  std::fflush(stderr);
}

void writeStdout(std::string_view line) {
  std::lock_guard lock(sinkMutex());
  if (stdoutSink()) return stdoutSink()(line);
  std::fprintf(stdout, "%.*s\n", static_cast<int>(line.size()), line.data());
  std::fflush(stdout);
}

void setLogTarget(LogTarget t) {
  std::lock_guard lock(sinkMutex());
  if (t == LogTarget::Syslog) openlog("zephlo", LOG_PID, LOG_USER);
  target() = t;
}

void setLogSink(LineSink sink) {
  std::lock_guard lock(sinkMutex());
  logSink() = std::move(sink);
}

void setStdoutSink(LineSink sink) {
  std::lock_guard lock(sinkMutex());
  stdoutSink() = std::move(sink);
}

}  // namespace zephlo::platform
