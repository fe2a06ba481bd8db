// PortalStandIn: for tests, a private session bus (its own dbus-daemon, with no
// services to start) and on it a screen-sharing portal that answers as
// xdg-desktop-portal 1.16 does: every step answers through a Request object's
// Response signal with the code it is told to give (0 go on, 1 cancelled,
// 2 failed), Start hands back one stream and a restore token, and the session
// can be closed from the desktop's side.
//
// Owned by the test. The portal runs on a thread of its own; the test's calls
// take the bus under a mutex.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "apps/broadcast/child_process.hpp"

struct sd_bus;

namespace zephlo::testing {

class PortalStandIn {
 public:
  struct Answers {
    std::uint32_t createSession = 0;
    std::uint32_t selectSources = 0;
    std::uint32_t start = 0;
    std::uint32_t nodeId = 42;
    int logicalWidth = 640;
    int logicalHeight = 360;
    // Handed back by Start; empty: none (the desktop does not remember).
    std::string restoreToken = "5e1b1a6c-9f0e-4a43-8d2b-0d6a1c2f7e11";
    // The PipeWire connection OpenPipeWireRemote hands over (the stand-in
    // closes it after sending).
    std::function<int()> openRemote;
  };

  // Starts the bus in `directory` and claims the portal's name on it; `portal`
  // false leaves the bus without a portal.
  explicit PortalStandIn(const std::string& directory, bool portal = true);
  ~PortalStandIn();
  PortalStandIn(const PortalStandIn&) = delete;
  PortalStandIn& operator=(const PortalStandIn&) = delete;

  bool ready() const { return bus_ != nullptr || (!portal_ && !address_.empty()); }
  const std::string& address() const { return address_; }
  void setAnswers(Answers answers);
  // SelectSources' options of the last call, as text ("u 2", "s TOKEN", "b 0").
  std::map<std::string, std::string> selectOptions();
  // Whether the client closed its session.
  bool sessionClosed();
  // The desktop ends the session: its Closed signal.
  void closeSession();

  // The method handler's entry (a plain function for sd-bus's table).
  static int onMethodFor(void* message, void* userdata, void* error);

 private:
  int answer(void* message);
  void run();

  std::unique_ptr<ChildProcess> daemon_;
  std::string address_;
  bool portal_;
  sd_bus* bus_ = nullptr;
  int wake_ = -1;
  bool stopping_ = false;
  std::mutex mutex_;
  Answers answers_;
  std::map<std::string, std::string> selectOptions_;
  std::string session_;
  bool sessionClosed_ = false;
  std::thread thread_;
};

}  // namespace zephlo::testing
