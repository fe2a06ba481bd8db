// ChildProcess: a program run by a test, with its standard output and error
// read line by line on a thread of their own, so that a test can wait for a line
// (with a generous limit), send signals and collect the exit status.
//
// Owned by the test. Destroying it kills the child and anything it started in
// its process group (SIGKILL) and reaps it; the child is also killed when the
// test process dies.
//
// THREADING: the reader thread appends lines under a mutex; every method may be
// called from the test's thread while it runs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zephlo::testing {

class ChildProcess {
 public:
  // Starts `program` with `args` and the test's environment plus `environment`
  // (an empty value removes the variable). Fails the test (via the returned
  // process's pid being -1) when it cannot start.
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const std::map<std::string, std::string>& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  // Waits until a line of stdout (or stderr) satisfies `match`; true when one did
  // within `limit`.
  bool waitForStdout(const std::function<bool(const std::string&)>& match,
                     std::chrono::milliseconds limit = std::chrono::seconds(20));
  bool waitForStderr(const std::function<bool(const std::string&)>& match,
                     std::chrono::milliseconds limit = std::chrono::seconds(20));
  bool waitForStderrLine(const std::string& line, std::chrono::milliseconds limit = std::chrono::seconds(20));

  // Non-blocking looks, for tests that pump their own event loop meanwhile.
  bool hasStderrLine(const std::string& line) const;
  std::size_t stdoutLineCount() const;

  void signal(int signal);
  // The exit status once the child exited within `limit` (128 + n for a signal
  // n); empty when it is still running.
  std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(20));

  std::vector<std::string> stdoutLines() const;
  std::vector<std::string> stderrLines() const;

 private:
  void readLines(int fd, std::vector<std::string>* lines);
  bool waitFor(const std::vector<std::string>& lines, const std::function<bool(const std::string&)>& match,
               std::chrono::milliseconds limit);

  pid_t pid_ = -1;
  std::optional<int> status_;
  // Tells the readers to stop once the child is gone.
  int stop_ = -1;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> stdout_;
  std::vector<std::string> stderr_;
  std::thread stdoutReader_;
  std::thread stderrReader_;
};

}  // namespace zephlo::testing
