// ScreenCastPortal: the desktop's screen-sharing portal (the ScreenCast
// interface of xdg-desktop-portal on the session bus), which asks the user which
// screen to share and hands over a PipeWire connection that sees only that
// screen's stream. One object is one portal session: `start` runs the whole
// handshake (create a session, select one monitor with the cursor drawn in and
// ask to be remembered, start, open the PipeWire remote), `watch` then reports
// the session closing from the desktop's side, and `close` ends it.
//
// Talks D-Bus through sd-bus. `connect`, `start` and `close` run on the main
// thread; after `watch` the bus belongs to the watcher thread until `close`
// stops it, so the connection is never used by two threads at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

struct sd_bus;

namespace zephlo {

class ScreenCastPortal {
 public:
  enum class Outcome { Started, Cancelled, Failed };
  struct Result {
    Outcome outcome = Outcome::Failed;
    // Why it did not start, one line for the user.
    std::string message;
    // The stream's PipeWire node and a connection that can see it (owned by the
    // caller; -1 unless started).
    std::uint32_t nodeId = 0;
    int pipewireFd = -1;
    // The token to pass next time to share the same screen without asking;
    // empty when the desktop does not remember choices.
    std::string restoreToken;
    // The screen's size in the desktop's own units (pixels over its scale); 0
    // when the portal does not say.
    int logicalWidth = 0;
    int logicalHeight = 0;
  };
  // Called once, on the watcher thread, with one line for the user.
  using ClosedHandler = std::function<void(const std::string& why)>;

  // The session bus's portal; null with `error` set when there is no session
  // bus or no ScreenCast portal on it.
  // `busAddress` empty: the session bus of $DBUS_SESSION_BUS_ADDRESS.
  static std::unique_ptr<ScreenCastPortal> connect(std::string* error, const std::string& busAddress = "");
  ~ScreenCastPortal();
  ScreenCastPortal(const ScreenCastPortal&) = delete;
  ScreenCastPortal& operator=(const ScreenCastPortal&) = delete;

  // Asks for one monitor, passing `restoreToken` when not empty. Blocks while
  // the desktop shows its dialog. Called once.
  Result start(const std::string& restoreToken);
  // Reports the session closed by the desktop (the user stopped sharing from its
  // indicator), the portal leaving the bus or the bus going away.
  void watch(ClosedHandler closed);
  // Stops watching and closes the session. Idempotent.
  void close();

 private:
  struct Reply;
  explicit ScreenCastPortal(sd_bus* bus);
  std::string request(const char* method, Reply* reply, const std::function<int(void* message)>& append);
  void runWatcher();

  sd_bus* bus_;
  std::uint32_t version_ = 0;
  std::uint32_t cursorModes_ = 0;
  std::string session_;
  std::string senderPath_;
  unsigned tokens_ = 0;
  ClosedHandler closed_;
  int wake_ = -1;
  std::atomic<bool> closing_ = false;
  std::thread watcher_;
};

}  // namespace zephlo
