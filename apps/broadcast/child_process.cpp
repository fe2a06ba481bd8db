#include "apps/broadcast/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

extern char** environ;

namespace zephlo::testing {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::map<std::string, std::string>& environment) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
  stop_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    std::string entry(*e);
    const std::string name = entry.substr(0, entry.find('='));
    if (!environment.count(name)) env.push_back(entry);
  }
  for (const auto& [name, value] : environment) {
    if (!value.empty()) env.push_back(name + "=" + value);
  }
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  // Only async-signal-safe calls between fork and exec. The child leads a
  // process group of its own, so that whatever it starts goes with it, and dies
  // with the test even when the test is killed before it can clean up.
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    ::execve(program.c_str(), argv.data(), envp.data());
    ::_exit(127);
  }
  close(out[1]);
  close(err[1]);
  stdoutReader_ = std::thread([this, fd = out[0]] { readLines(fd, &stdout_); });
  stderrReader_ = std::thread([this, fd = err[0]] { readLines(fd, &stderr_); });
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    // The whole group, also when the child itself has exited: a daemon it left
    // behind would keep its output open.
    ::kill(-pid_, SIGKILL);
    if (!status_) {
      int status = 0;
      waitpid(pid_, &status, 0);
    }
  }
  // A grandchild outside the group may still hold the output open; the readers
  // do not wait for it.
  const std::uint64_t one = 1;
  if (stop_ >= 0) [[maybe_unused]] auto written = ::write(stop_, &one, sizeof one);
  if (stdoutReader_.joinable()) stdoutReader_.join();
  if (stderrReader_.joinable()) stderrReader_.join();
  if (stop_ >= 0) ::close(stop_);
}

void ChildProcess::readLines(int fd, std::vector<std::string>* lines) {
  std::string pending;
  char buffer[4096];
  while (true) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {stop_, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    // What is already there is still read when stopping.
    if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) break;
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buffer, static_cast<std::size_t>(n));
    std::size_t newline;
    while ((newline = pending.find('\n')) != std::string::npos) {
      std::lock_guard lock(mutex_);
      lines->push_back(pending.substr(0, newline));
      pending.erase(0, newline + 1);
      changed_.notify_all();
    }
  }
  std::lock_guard lock(mutex_);
  if (!pending.empty()) lines->push_back(pending);
  changed_.notify_all();
  close(fd);
}

bool ChildProcess::waitFor(const std::vector<std::string>& lines, const std::function<bool(const std::string&)>& match,
                           std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return std::any_of(lines.begin(), lines.end(), match); });
}

bool ChildProcess::waitForStdout(const std::function<bool(const std::string&)>& match, std::chrono::milliseconds limit) {
  return waitFor(stdout_, match, limit);
}

bool ChildProcess::waitForStderr(const std::function<bool(const std::string&)>& match, std::chrono::milliseconds limit) {
  return waitFor(stderr_, match, limit);
}

bool ChildProcess::waitForStderrLine(const std::string& line, std::chrono::milliseconds limit) {
  return waitForStderr([&](const std::string& l) { return l == line; }, limit);
}

bool ChildProcess::hasStderrLine(const std::string& line) const {
  std::lock_guard lock(mutex_);
  return std::find(stderr_.begin(), stderr_.end(), line) != stderr_.end();
}

std::size_t ChildProcess::stdoutLineCount() const {
  std::lock_guard lock(mutex_);
  return stdout_.size();
}

void ChildProcess::signal(int signal) {
  if (pid_ > 0 && !status_) ::kill(pid_, signal);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
  if (status_ || pid_ <= 0) return status_;
  const auto end = std::chrono::steady_clock::now() + limit;
  while (true) {
    int status = 0;
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return status_;
    }
    if (std::chrono::steady_clock::now() >= end) return std::nullopt;
    // Polling the child's state, not waiting for an outcome: the limit is what
    // bounds the test.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::vector<std::string> ChildProcess::stdoutLines() const {
  std::lock_guard lock(mutex_);
  return stdout_;
}

std::vector<std::string> ChildProcess::stderrLines() const {
  std::lock_guard lock(mutex_);
  return stderr_;
}

}  // namespace zephlo::testing
