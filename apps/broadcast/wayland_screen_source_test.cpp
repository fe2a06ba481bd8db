// The Wayland path against a private PipeWire with a stream of the test's own,
// and a stand-in portal on a private session bus.
#include "apps/broadcast/wayland_screen_source.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <iostream>
#include <fstream>

#include "apps/broadcast/canvas.hpp"
#include "apps/broadcast/pipewire_stream.hpp"
#include "apps/broadcast/pipewire_test_producer.hpp"
#include "apps/broadcast/portal_stand_in.hpp"
#include "apps/broadcast/screen_cast_portal.hpp"
#include "zephlo/testing/sample_recorder.hpp"

namespace zephlo {
namespace {

using namespace std::chrono_literals;
using testing::PipeWireTestProducer;
using testing::PortalStandIn;

constexpr Rgb kRed{255, 0, 0}, kGreen{0, 255, 0}, kBlue{0, 0, 255}, kWhite{255, 255, 255}, kYellow{255, 255, 0};

Rgb colourAt(const platform::SampleBuffer& sample, int x, int y) {
  return Canvas(const_cast<platform::PixelBuffer&>(*sample.imageBuffer())).at(x, y);
}

// The producer's picture the right way up: its size, and each block's colour in
// its place (NV12 rounds a little).
void expectPicture(const char* what, const platform::SampleBuffer& sample, int width, int height, Rgb topLeft,
                   Rgb topRight, Rgb bottom) {
  SCOPED_TRACE(what);
  ASSERT_EQ(sample.imageBuffer()->width(), width);
  ASSERT_EQ(sample.imageBuffer()->height(), height);
  auto near = [](Rgb a, Rgb b) { return std::abs(a.r - b.r) <= 3 && std::abs(a.g - b.g) <= 3 && std::abs(a.b - b.b) <= 3; };
  EXPECT_PRED2(near, colourAt(sample, width / 4, height / 4), topLeft) << "top left";
  EXPECT_PRED2(near, colourAt(sample, width * 3 / 4, height / 4), topRight) << "top right";
  EXPECT_PRED2(near, colourAt(sample, width / 2, height * 3 / 4), bottom) << "bottom";
}

// Runs `f` on a thread of its own and aborts the test program when it has not
// returned within a generous limit: a call that hangs cannot be cancelled.
void mustReturn(const char* what, std::function<void()> f) {
  auto done = std::async(std::launch::async, std::move(f));
  if (done.wait_for(20s) != std::future_status::ready) {
    std::cerr << what << " did not return\n";
    std::abort();
  }
}

class WaylandCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* program : {"dbus-daemon", "pipewire", "wireplumber"})
      if (!std::filesystem::exists(std::string("/usr/bin/") + program)) GTEST_SKIP() << program << " is not installed";
    // Short: socket paths must fit in 108 bytes.
    static int runs = 0;
    dir_ = std::filesystem::temp_directory_path() /
           ("zw-" + std::to_string(::getpid()) + "-" + std::to_string(++runs));
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
    std::filesystem::permissions(dir_, std::filesystem::perms::owner_all);
  }
  void TearDown() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  // A private PipeWire with the test's stream on it.
  std::optional<std::uint32_t> startProducer(int width, int height, PipeWireTestProducer::Picture first,
                                             bool rgbOrder = false) {
    producer_ = std::make_unique<PipeWireTestProducer>(dir_.string());
    if (!producer_->ready()) return std::nullopt;
    return producer_->startStream(width, height, rgbOrder, first);
  }

  std::filesystem::path dir_;
  std::unique_ptr<PipeWireTestProducer> producer_;
};

TEST_F(WaylandCaptureTest, PicturesArriveAsDrawnAndFollowTheScreenUntilItGoesAway) {
  auto node = startProducer(64, 48, {kRed, kGreen, kBlue});
  ASSERT_TRUE(node) << "the test stream did not come up";
  std::string error;
  auto stream = PipeWireStream::open(producer_->connect(), *node, platform::PixelFormat::BGRA, 6, &error);
  ASSERT_TRUE(stream) << error;
  testing::SampleRecorder received;
  received.listenTo(*stream);

  auto first = received.waitForSample(1);
  ASSERT_TRUE(first) << "no picture arrived";
  expectPicture("first", *first, 64, 48, kRed, kGreen, kBlue);
  EXPECT_EQ(first->orientationAttachment(), 6);
  EXPECT_EQ(first->imageBuffer()->plane(0)[3], 255) << "the padding byte is not alpha";

  // A still screen sends nothing, and that is not an end. (Bounded look for
  // something that must not come.)
  EXPECT_FALSE(received.waitForSample(2, 500ms)) << "a picture came from a still screen";

  // A corrupted picture is skipped: the next good one is the second sample.
  producer_->show({kYellow, kYellow, kYellow, true});
  producer_->show({kWhite, kRed, kGreen});
  auto second = received.waitForSample(2);
  ASSERT_TRUE(second);
  expectPicture("after a corrupted one", *second, 64, 48, kWhite, kRed, kGreen);

  // Only the cropped part is the picture.
  producer_->show({kBlue, kRed, kGreen, false, Rect{16, 12, 32, 24}});
  auto cropped = received.waitForSample(3);
  ASSERT_TRUE(cropped);
  expectPicture("cropped", *cropped, 32, 24, kBlue, kRed, kGreen);

  // The screen turns to portrait mid-stream.
  producer_->resize(48, 80);
  producer_->show({kGreen, kBlue, kRed});
  auto turned = received.waitForSample(4);
  ASSERT_TRUE(turned) << "no picture after the size changed";
  expectPicture("portrait", *turned, 48, 80, kGreen, kBlue, kRed);

  producer_->stopStream();
  EXPECT_EQ(received.waitForEnd(), "The shared screen went away");

  // The ended stream stays off the next screen on the same PipeWire, which
  // goes to its own reader.
  auto next = producer_->startStream(32, 32, false, {kBlue, kBlue, kBlue});
  ASSERT_TRUE(next);
  testing::SampleRecorder nextReceived;
  auto nextStream = PipeWireStream::open(producer_->connect(), *next, platform::PixelFormat::BGRA, 1, &error);
  ASSERT_TRUE(nextStream) << error;
  nextReceived.listenTo(*nextStream);
  EXPECT_TRUE(nextReceived.waitForSample(1)) << "the next screen's picture went elsewhere";
  stream->stop();
  EXPECT_EQ(received.sampleCount(), 4u);
  EXPECT_EQ(received.endCount(), 1u);
}

TEST_F(WaylandCaptureTest, RgbStreamsComeAsNv12AndStopReturnsWhateverPipeWireDoes) {
  auto node = startProducer(32, 32, {kRed, kGreen, kBlue}, true);
  ASSERT_TRUE(node);
  std::string error;
  testing::SampleRecorder received;
  auto stream = PipeWireStream::open(producer_->connect(), *node, platform::PixelFormat::NV12, 1, &error);
  ASSERT_TRUE(stream) << error;
  received.listenTo(*stream);
  auto sample = received.waitForSample(1);
  ASSERT_TRUE(sample);
  EXPECT_EQ(sample->imageBuffer()->format(), platform::PixelFormat::NV12);
  expectPicture("NV12", *sample, 32, 32, kRed, kGreen, kBlue);

  producer_->killDaemon();
  EXPECT_EQ(received.waitForEnd(), "PipeWire went away");
  mustReturn("stop after PipeWire went away", [&] { stream->stop(); });
  EXPECT_EQ(received.endCount(), 1u);

  // A PipeWire that never answers: stopping and closing still return.
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  auto silent = PipeWireStream::open(pair[0], *node, platform::PixelFormat::BGRA, 1, &error);
  ASSERT_TRUE(silent) << error;
  silent->start([](const platform::SampleBuffer&) {}, [](const std::string&) {});
  mustReturn("stop on a silent PipeWire", [&] { silent.reset(); });
  ::close(pair[1]);
}

TEST_F(WaylandCaptureTest, ThePortalsAnswersAreHeededAndTheChoiceIsRemembered) {
  PortalStandIn portal(dir_.string());
  ASSERT_TRUE(portal.ready());
  const RestoreTokenFile tokens((dir_ / "data" / "screen-cast-restore-token").string());

  // Every step's refusal stops the handshake, saying whether the user said no.
  using Answers = PortalStandIn::Answers;
  using Refusal = WaylandScreenSource::Refusal;
  for (const auto& [step, code, refusal, says] :
       std::initializer_list<std::tuple<std::uint32_t Answers::*, std::uint32_t, Refusal, const char*>>{
           {&Answers::createSession, 2, Refusal::Failed, "CreateSession failed"},
           {&Answers::selectSources, 1, Refusal::Cancelled, "cancelled"},
           {&Answers::start, 1, Refusal::Cancelled, "cancelled"},
           {&Answers::start, 2, Refusal::Failed, "Start failed"}}) {
    Answers answers;
    answers.*step = code;
    portal.setAnswers(answers);
    std::string error;
    Refusal got = Refusal::None;
    EXPECT_FALSE(WaylandScreenSource::open(tokens, platform::PixelFormat::BGRA, 1, &error, &got, portal.address()));
    EXPECT_EQ(got, refusal) << says;
    EXPECT_NE(error.find(says), std::string::npos) << error;
  }
  EXPECT_TRUE(tokens.load().empty()) << "nothing to remember from a refusal";

  // Granted: the PipeWire stream is the test's, at twice the desktop's units.
  auto node = startProducer(128, 72, {kRed, kGreen, kBlue});
  ASSERT_TRUE(node);
  Answers granted;
  granted.nodeId = *node;
  granted.logicalWidth = 64;
  granted.logicalHeight = 36;
  granted.openRemote = [this] { return producer_->connect(); };
  portal.setAnswers(granted);
  std::string error;
  auto source = WaylandScreenSource::open(tokens, platform::PixelFormat::BGRA, 1, &error, nullptr, portal.address());
  ASSERT_TRUE(source) << error;
  EXPECT_EQ(source->desktopScale(), 2);
  auto options = portal.selectOptions();
  for (const auto& [key, value] : {std::pair<std::string, std::string>{"types", "u 1"}, {"multiple", "b 0"},
                                   {"cursor_mode", "u 2"}, {"persist_mode", "u 2"}})
    EXPECT_EQ(options[key], value) << key;
  EXPECT_EQ(options.count("restore_token"), 0u);
  EXPECT_EQ(tokens.load(), granted.restoreToken);
  struct stat info{};
  ASSERT_EQ(::stat(tokens.path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  testing::SampleRecorder received;
  received.listenTo(*source);
  auto sample = received.waitForSample(1);
  ASSERT_TRUE(sample) << "the picture sent before start was lost";
  EXPECT_EQ(colourAt(*sample, 120, 4), kGreen);

  // The user stops sharing from the desktop.
  portal.closeSession();
  EXPECT_EQ(received.waitForEnd(), "Screen sharing was stopped from the desktop");
  source->stop();
  EXPECT_EQ(received.endCount(), 1u);
  EXPECT_TRUE(portal.sessionClosed()) << "our side of the session is closed too";
  source.reset();

  // The next broadcast hands the token back, and keeps the new one.
  granted.restoreToken = "0c5f3a8e-2b1d-4e6f-9a7c-3d2e1f0a9b8c";
  portal.setAnswers(granted);
  source = WaylandScreenSource::open(tokens, platform::PixelFormat::BGRA, 1, &error, nullptr, portal.address());
  ASSERT_TRUE(source) << error;
  EXPECT_EQ(portal.selectOptions()["restore_token"], "s 5e1b1a6c-9f0e-4a43-8d2b-0d6a1c2f7e11");
  EXPECT_EQ(tokens.load(), granted.restoreToken);
}

TEST_F(WaylandCaptureTest, ABusWithoutAPortalNamesWhatToInstall) {
  PortalStandIn bus(dir_.string(), false);
  ASSERT_TRUE(bus.ready());
  std::string error;
  EXPECT_FALSE(ScreenCastPortal::connect(&error, bus.address()));
  EXPECT_NE(error.find("no screen-sharing portal"), std::string::npos) << error;
  EXPECT_NE(error.find("xdg-desktop-portal-wlr"), std::string::npos) << error;
}

}  // namespace
}  // namespace zephlo
