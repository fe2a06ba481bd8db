// End to end: the real zephlo-keychain writes the host application's items, the
// real zephlo-broadcast runs against the real zephlo-service on 127.0.0.1, and the
// tests read what the program says and what reaches the service.
#include <gtest/gtest.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "apps/broadcast/child_process.hpp"
#include "zephlo/testing/http_call.hpp"
#include "zephlo/core/json.hpp"
#include "zephlo/platform/main_queue.hpp"

namespace zephlo {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;

constexpr auto kLimit = 30s;
// The service's message carries a line break (escaped in its JSON body); the
// program's end line holds it on one line.
constexpr char kRefusalJson[] = R"(The agent declined\nfull-device mode)";
constexpr char kRefusal[] = "The agent declined full-device mode";

// zephlo-service on a port of its own, with one session made for the test.
class ReferenceService {
 public:
  ReferenceService() : service_(ZEPHLO_SERVICE_PROGRAM, {"--listen", "127.0.0.1:0"}) {
    service_.waitForStdout([&](const std::string& line) {
      const auto at = line.find("listening on http://");
      if (at != std::string::npos) base_ = line.substr(at + 13, line.find(' ', at + 13) - (at + 13));
      return at != std::string::npos;
    });
    if (base_.empty()) {
      ADD_FAILURE() << "zephlo-service did not start";
      return;
    }
    port_ = static_cast<std::uint16_t>(std::stoi(base_.substr(base_.rfind(':') + 1)));
    sessionId_ = call("POST", "/api/1/sessions", "{}").get("id").stringValue().value_or("");
  }

  // Runs the main queue (this test's HTTP calls) until `done`.
  bool runUntil(const std::function<bool()>& done) { return platform::MainQueue::shared().runUntil(done, kLimit); }
  // What the host application stores as "zephlo.api" and "zephlo.session".
  std::string apiUrl() { return base_; }
  std::string sessionId() { return sessionId_; }
  // How the full-device request and later fetches are answered; the service
  // pushes every change to the session's control sockets itself.
  void answerWith(const std::string& state) {
    call("PUT", "/api/1/sessions/" + sessionId_, R"({"state":")" + state + R"(","full_device":true})");
  }
  void answerWithError(int status, const std::string& message) {
    call("PUT", consolePath() + "/full-device-failure",
         R"({"status":)" + std::to_string(status) + R"(,"message":")" + message + R"("})");
  }
  void sendSync() { call("POST", consolePath() + "/events", R"({"event":"sync","data":{}})"); }
  void dropStreamSocket() {
    framesAtDrop_ = frames();
    call("POST", consolePath() + "/drop-stream", "{}");
  }
  // Whether a control socket listens for session changes.
  bool controlConnected() { return count(summary().get("session_listeners")) > 0; }
  std::size_t frames() { return framesIn(summary()); }
  // The JPEG of the newest frame; empty before the first.
  Bytes lastFrame() {
    const auto answer = fetch("GET", consolePath() + "/frame", "");
    if (!answer || answer->status != 200) return {};
    return Bytes(answer->body.begin(), answer->body.end());
  }
  // Whether a frame came on a stream socket opened after dropStreamSocket(): the
  // dropped socket is closed before the drop is answered, so later frames came on
  // another one.
  bool framesOnNewStreamSocket() {
    const ValueMap now = summary();
    return count(now.get("stream_sockets")) > 0 && framesIn(now) > framesAtDrop_;
  }

 private:
  static std::size_t framesIn(const ValueMap& summary) {
    const Value stats = summary.get("stats");
    return stats.isMap() ? count(stats.asMap()->get("frames")) : 0;
  }
  static std::size_t count(const Value& value) { return static_cast<std::size_t>(value.toDouble().value_or(0)); }
  std::string consolePath() const { return "/console/api/sessions/" + sessionId_; }
  ValueMap summary() { return call("GET", consolePath(), ""); }

  // One REST call, answered before it returns; a failed one fails the test.
  ValueMap call(const std::string& method, const std::string& target, const std::string& body) {
    const auto result = fetch(method, target, body);
    if (!result || !result->completed || result->status >= 400) {
      ADD_FAILURE() << method << " " << target << ": " << (result ? result->status : 0) << " "
                    << (result ? result->body : "no answer");
      return {};
    }
    const Value answer = json::parse(result->body).value_or(Value());
    return answer.asMap() ? *answer.asMap() : ValueMap{};
  }
  std::optional<testing::HttpResult> fetch(const std::string& method, const std::string& target,
                                           const std::string& body) {
    std::optional<testing::HttpResult> result;
    testing::httpCall({"127.0.0.1", port_, method, target, body, {{"Content-Type", "application/json"}}},
                      [&](testing::HttpResult r) { result = std::move(r); });
    platform::MainQueue::shared().runUntil([&] { return result.has_value(); }, kLimit);
    return result;
  }

  testing::ChildProcess service_;
  std::string base_;
  std::uint16_t port_ = 0;
  std::string sessionId_;
  std::size_t framesAtDrop_ = 0;
};

class BroadcastEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::MainQueue::shared().reset(platform::ClockKind::Real);
    dir_ = std::filesystem::temp_directory_path() /
           ("zephlo-e2e-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
    bundle_ = (dir_ / "bundle.json").string();
    std::ofstream(bundle_) << R"({"CFBundleIdentifier": "com.example.e2e.broadcast", "CFBundleName": "E2EBroadcast",
      "CFBundleVersion": "7", "CFBundleShortVersionString": "1.0",
      "keychain-access-groups": ["E2ETEAM001.com.example.e2e.broadcast", "E2ETEAM001.zephlo"]})";
    keychain_ = (dir_ / "keychain.db").string();
    service_ = std::make_unique<ReferenceService>();
  }
  void TearDown() override {
    broadcast_.reset();
    service_.reset();
    platform::MainQueue::shared().reset(platform::ClockKind::Real);
    std::filesystem::remove_all(dir_);
  }

  // Runs zephlo-keychain; returns its exit status and its first line of output.
  int keychain(std::vector<std::string> args, std::string* out = nullptr) {
    args.insert(args.begin(), {"--bundle", bundle_, "--keychain", keychain_});
    ChildProcess tool(ZEPHLO_KEYCHAIN_PROGRAM, args);
    auto status = tool.wait(kLimit);
    if (out) {
      auto lines = tool.stdoutLines();
      *out = lines.empty() ? "" : lines.front();
    }
    return status.value_or(-1);
  }
  void storeApi() { ASSERT_EQ(keychain({"set", "zephlo.api", service_->apiUrl()}), 0); }
  void storeSession() { ASSERT_EQ(keychain({"set", "zephlo.session", service_->sessionId()}), 0); }

  // Runs zephlo-broadcast, through `wrapper_` when a case sets one.
  void startBroadcast(std::vector<std::string> extra = {}, const std::map<std::string, std::string>& environment = {}) {
    std::vector<std::string> args = wrapper_;
    args.insert(args.end(), {ZEPHLO_BROADCAST_PROGRAM, "--bundle", bundle_, "--keychain", keychain_, "--screen",
                             "100x200@2", "--sample-rate", "10"});
    args.insert(args.end(), extra.begin(), extra.end());
    const std::string program = args.front();
    args.erase(args.begin());
    broadcast_ = std::make_unique<ChildProcess>(program, args, environment);
    ASSERT_GT(broadcast_->pid(), 0);
  }
  // An active full-device session, the broadcast streaming its first frame and
  // the control socket listening for changes.
  void startStreaming(std::vector<std::string> extra = {}, const std::map<std::string, std::string>& environment = {}) {
    storeApi();
    storeSession();
    service_->answerWith("active");
    startBroadcast(std::move(extra), environment);
    ASSERT_TRUE(service_->runUntil([&] { return service_->frames() >= 1 && service_->controlConnected(); }))
        << stderrText();
  }
  bool waitForStderr(const std::string& line) {
    return service_->runUntil([&] { return broadcast_->hasStderrLine(line); });
  }
  // The program's exit status, while the service keeps serving.
  std::optional<int> exitStatus() {
    std::optional<int> status;
    service_->runUntil([&] { return (status = broadcast_->wait(0ms)).has_value(); });
    return status;
  }
  // The broadcast ends with `message` logged alone (unless `logged` is false),
  // then "Broadcast ended: <message>", then exit status 3. A rule checked on
  // every session update may log its message more than once before the end.
  void expectEndedWith(const std::string& message, bool logged = true) {
    ASSERT_TRUE(waitForStderr("Broadcast ended: " + message)) << stderrText();
    EXPECT_EQ(exitStatus(), 3) << stderrText();
    auto lines = broadcast_->stderrLines();
    EXPECT_EQ(lines.back(), "Broadcast ended: " + message) << stderrText();
    lines.pop_back();
    EXPECT_EQ(lines.empty(), !logged) << stderrText();
    for (const auto& line : lines) EXPECT_EQ(line, message) << stderrText();
  }
  // The --stats lines so far (stdout also carries the socket's diagnostics).
  std::vector<std::string> statsLines() {
    std::vector<std::string> lines;
    for (auto& line : broadcast_->stdoutLines())
      if (line.starts_with("stats: ")) lines.push_back(line);
    return lines;
  }
  // "stats: sent N" of a status line.
  static std::string sentPart(const std::string& line) { return line.substr(0, line.find(',')); }
  std::string stderrText() {
    std::string text;
    for (const auto& l : broadcast_->stderrLines()) text += l + "\n";
    return text;
  }
  void writeJpeg(const std::filesystem::path& file) {
    std::vector<std::uint8_t> rgb(64 * 64 * 3, 90);
    tjhandle tj = tjInitCompress();
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    tjCompress2(tj, rgb.data(), 64, 64 * 3, 64, TJPF_RGB, &jpeg, &size, TJSAMP_420, 90, 0);
    std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(jpeg), static_cast<std::streamsize>(size));
    tjFree(jpeg);
    tjDestroy(tj);
  }

  std::filesystem::path dir_;
  std::string bundle_;
  std::string keychain_;
  std::unique_ptr<ReferenceService> service_;
  std::unique_ptr<ChildProcess> broadcast_;
  std::vector<std::string> wrapper_;
};

// The service's ways of ending the broadcast before it streams (a missing
// keychain item is the extension's tests').
TEST_F(BroadcastEndToEndTest, EndsBeforeStreamingWithTheReason) {
  storeApi();
  storeSession();
  // A refused full-device request: its message ends the broadcast, unlogged.
  service_->answerWithError(403, kRefusalJson);
  startBroadcast();
  expectEndedWith(kRefusal, false);
  // The next request is granted, on a session not yet active.
  service_->answerWith("pending");
  startBroadcast();
  expectEndedWith("Zephlo session wasn't activated yet");
  EXPECT_EQ(service_->frames(), 0u);
}

TEST_F(BroadcastEndToEndTest, SessionEndedEndsAndForgetsTheSessionItem) {
  startStreaming();
  service_->answerWith("ended");
  expectEndedWith("Session ended");
  std::string value;
  EXPECT_EQ(keychain({"get", "zephlo.session"}, &value), 1) << value;
  EXPECT_EQ(keychain({"get", "zephlo.api"}, &value), 0);
  EXPECT_EQ(value, service_->apiUrl());
}

TEST_F(BroadcastEndToEndTest, FramesFlowPauseAndResumeBySignalAndResumeAfterTheStreamSocketDrops) {
  startStreaming({"--stats"});
  // The test pattern changes once a second, so frames keep coming.
  ASSERT_TRUE(service_->runUntil([&] { return service_->frames() >= 2; })) << stderrText();

  broadcast_->signal(SIGUSR1);
  ASSERT_TRUE(waitForStderr("Broadcast paused"));
  // Nothing is captured while paused: the sent count stands still.
  const auto linesAtPause = statsLines().size();
  ASSERT_TRUE(service_->runUntil([&] { return statsLines().size() >= linesAtPause + 3; }));
  auto stats = statsLines();
  EXPECT_EQ(sentPart(stats[linesAtPause + 1]), sentPart(stats[linesAtPause + 2]));
  const auto framesWhilePaused = service_->frames();

  broadcast_->signal(SIGUSR2);
  ASSERT_TRUE(waitForStderr("Broadcast resumed"));
  ASSERT_TRUE(service_->runUntil([&] { return service_->frames() > framesWhilePaused; }));

  service_->dropStreamSocket();
  ASSERT_TRUE(service_->runUntil([&] { return service_->framesOnNewStreamSocket(); })) << stderrText();

  broadcast_->signal(SIGTERM);
  EXPECT_EQ(exitStatus(), 0) << stderrText();
  EXPECT_EQ(broadcast_->stderrLines(),
            (std::vector<std::string>{"Broadcast paused", "Broadcast resumed", "Broadcast finished"}));
  for (const auto& line : statsLines()) {
    EXPECT_NE(line.find(", dropped "), std::string::npos) << line;
    EXPECT_NE(line.find(", quality "), std::string::npos) << line;
  }
}

TEST_F(BroadcastEndToEndTest, ASyncSendsAFrameOfAStillScreen) {
  std::filesystem::create_directories(dir_ / "still");
  writeJpeg(dir_ / "still" / "only.jpg");
  startStreaming({"--source", "images:" + (dir_ / "still").string(), "--stats"});
  // The screen is still: the status lines go on counting one frame sent.
  const auto lines = statsLines().size();
  ASSERT_TRUE(service_->runUntil([&] { return statsLines().size() >= lines + 2; }));
  EXPECT_EQ(sentPart(statsLines()[lines + 1]), "stats: sent 1");
  EXPECT_EQ(service_->frames(), 1u);

  service_->sendSync();
  ASSERT_TRUE(service_->runUntil([&] { return service_->frames() == 2; }));

  broadcast_->signal(SIGINT);
  EXPECT_EQ(exitStatus(), 0);
  EXPECT_EQ(broadcast_->stderrLines(), std::vector<std::string>{"Broadcast finished"});
}

// "zephlo-broadcast --stats | head -1": the reader goes after one line, and the
// broadcast goes on without its status lines until it is stopped.
TEST_F(BroadcastEndToEndTest, StreamsOnWhenStandardOutputIsClosed) {
  wrapper_ = {"/bin/bash", "-c", R"(exec "$0" "$@" > >(head -n 1))"};
  startStreaming({"--stats"});
  ASSERT_TRUE(broadcast_->waitForStdout([](const std::string&) { return true; })) << stderrText();
  // The test pattern changes once a second and a status line is due each second:
  // three more frames mean status lines went into the closed pipe meanwhile.
  const auto frames = service_->frames();
  ASSERT_TRUE(service_->runUntil([&] { return service_->frames() >= frames + 3; })) << stderrText();
  broadcast_->signal(SIGTERM);
  EXPECT_EQ(exitStatus(), 0) << stderrText();
}

// A JPEG's width and height, and the colour at its middle; zeros when it does not decode.
std::tuple<int, int, std::array<int, 3>> decode(const Bytes& jpeg) {
  int width = 0, height = 0, subsampling = 0, colourspace = 0;
  std::vector<unsigned char> rgb;
  tjhandle tj = tjInitDecompress();
  if (!jpeg.empty() && tjDecompressHeader3(tj, jpeg.data(), jpeg.size(), &width, &height, &subsampling, &colourspace) == 0)
    rgb.resize(static_cast<std::size_t>(width) * height * 3);
  const bool decoded =
      !rgb.empty() && tjDecompress2(tj, jpeg.data(), jpeg.size(), rgb.data(), width, 0, height, TJPF_RGB, 0) == 0;
  tjDestroy(tj);
  if (!decoded) return {0, 0, {}};
  const std::size_t at = (static_cast<std::size_t>(height / 2) * width + width / 2) * 3;
  return {width, height, {rgb[at], rgb[at + 1], rgb[at + 2]}};
}
std::pair<int, int> jpegSize(const Bytes& jpeg) {
  const auto decoded = decode(jpeg);
  return {std::get<0>(decoded), std::get<1>(decoded)};
}

// A headless sway with PipeWire and the ScreenCast portal (scripts/headless-wayland):
// the picture is the desktop's, and the compositor going away ends the broadcast
// as a stop from the desktop would. Skipped where the desktop's packages are missing.
TEST_F(BroadcastEndToEndTest, AWaylandDesktopStreamsThroughItsPortalUntilTheCompositorGoes) {
  for (const char* program : {"/usr/bin/sway", "/usr/bin/swaybg", "/usr/bin/pipewire", "/usr/bin/wireplumber",
                              "/usr/libexec/xdg-desktop-portal", "/usr/libexec/xdg-desktop-portal-wlr",
                              "/usr/bin/python3", "/usr/bin/gdbus"}) {
    if (!std::filesystem::exists(program)) GTEST_SKIP() << program << " is not installed";
  }
  // Short: the desktop's sockets live below it, and a socket's path has room for 107 bytes.
  const auto state = std::filesystem::temp_directory_path() / ("zephlo-wl-" + std::to_string(::getpid()));
  auto desktop = std::make_unique<ChildProcess>(
      ZEPHLO_HEADLESS_WAYLAND, std::vector<std::string>{"--size", "320x240", "--background", "3366cc", "--state",
                                                        state.string()});
  // Torn down by its own trap, which a SIGKILL would skip.
  struct TearDown {
    ChildProcess& process;
    std::filesystem::path state;
    ~TearDown() {
      process.signal(SIGTERM);
      process.wait();
      std::filesystem::remove_all(state);
    }
  } tearDown{*desktop, state};
  ASSERT_TRUE(desktop->waitForStdout([](const std::string& line) { return line == "unset DISPLAY"; }))
      << (desktop->stderrLines().empty() ? "" : desktop->stderrLines().back());
  std::map<std::string, std::string> environment{{"DISPLAY", ""}};
  for (const auto& line : desktop->stdoutLines()) {
    if (!line.starts_with("export ")) continue;
    const auto equals = line.find('=');
    environment[line.substr(7, equals - 7)] = line.substr(equals + 1);
  }

  startStreaming({"--source", "wayland"}, environment);
  EXPECT_EQ(jpegSize(service_->lastFrame()), std::pair(80, 60));
  const auto colour = std::get<2>(decode(service_->lastFrame()));
  EXPECT_NEAR(colour[0], 0x33, 8);
  EXPECT_NEAR(colour[1], 0x66, 8);
  EXPECT_NEAR(colour[2], 0xcc, 8);

  ChildProcess quit("/usr/bin/swaymsg", {"-s", environment["SWAYSOCK"], "exit"});
  EXPECT_EQ(exitStatus(), 0) << stderrText();
  const auto lines = broadcast_->stderrLines();
  EXPECT_EQ(lines, (std::vector<std::string>{"Broadcast finished", "The shared screen went away"})) << stderrText();
}

// A desktop's screen reaches the agent at its own size in points: a 320x240
// screen at --screen's scale of 2 (over the desktop's own 1) is 160x120 points,
// 80x60 frames at the session's 0.5; a new screen size carries the broadcast on
// at that size.
// Xvnc rather than Xvfb: it changes its screen's size through RandR while
// running, as a desktop does when its monitor changes.
TEST_F(BroadcastEndToEndTest, AnX11ScreenStreamsAtItsOwnSizeAndFollowsARandRChange) {
  for (const char* program : {"/usr/bin/Xvnc", "/usr/bin/xrandr"})
    if (!std::filesystem::exists(program)) GTEST_SKIP() << program << " is not installed";
  ChildProcess server("/usr/bin/Xvnc", {"-displayfd", "1", "-geometry", "640x480", "-depth", "24", "-SecurityTypes",
                                        "None", "-rfbport", "-1", "-nolisten", "tcp"});
  ASSERT_TRUE(server.waitForStdout([](const std::string& line) { return !line.empty(); }));
  const std::string display = ":" + server.stdoutLines().front();
  startStreaming({"--source", "x11:" + display});
  EXPECT_EQ(jpegSize(service_->lastFrame()), std::pair(160, 120));

  ChildProcess xrandr("/usr/bin/xrandr", {"-display", display, "--output", "VNC-0", "--mode", "800x600"});
  ASSERT_EQ(xrandr.wait(), 0);
  EXPECT_TRUE(service_->runUntil([&] { return jpegSize(service_->lastFrame()) == std::pair(200, 150); }))
      << jpegSize(service_->lastFrame()).first << "x" << jpegSize(service_->lastFrame()).second;

  broadcast_->signal(SIGTERM);
  EXPECT_EQ(exitStatus(), 0) << stderrText();
}

}  // namespace
}  // namespace zephlo
