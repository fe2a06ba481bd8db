#include "apps/broadcast/x11_screen_source.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "apps/broadcast/canvas.hpp"
#include "apps/broadcast/child_process.hpp"

namespace zephlo {
namespace {

using namespace std::chrono_literals;

std::string findProgram(const std::string& name) {
  for (const char* dir : {"/usr/bin", "/usr/local/bin", "/bin"}) {
    auto path = std::filesystem::path(dir) / name;
    if (std::filesystem::exists(path)) return path.string();
  }
  return "";
}

// An Xvfb server on a free display number, with a black root window.
class X11ScreenSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto xvfb = findProgram("Xvfb");
    if (xvfb.empty()) GTEST_SKIP() << "Xvfb is not installed";
    if (findProgram("xlogo").empty()) GTEST_SKIP() << "xlogo (x11-apps) is not installed";
    // Xvfb prints the display number it picked on stdout (-displayfd 1).
    server_ = std::make_unique<testing::ChildProcess>(
        xvfb, std::vector<std::string>{"-displayfd", "1", "-screen", "0", "320x240x24", "-nolisten", "tcp", "-br"});
    ASSERT_TRUE(server_->waitForStdout([](const std::string& line) { return !line.empty(); }));
    display_ = ":" + server_->stdoutLines().front();
  }

  Rgb colourAt(const platform::SampleBuffer& sample, int x, int y) {
    return Canvas(const_cast<platform::PixelBuffer&>(*sample.imageBuffer())).at(x, y);
  }

  std::unique_ptr<testing::ChildProcess> server_;
  std::string display_;
};

TEST_F(X11ScreenSourceTest, AWindowDrawnOnTheScreenArrivesAndAnIdleScreenDeliversNothing) {
  std::string error;
  auto source = X11ScreenSource::open(display_, platform::PixelFormat::BGRA, 1, 30, &error);
  ASSERT_TRUE(source) << error;
  EXPECT_EQ(source->width(), 320);
  EXPECT_EQ(source->height(), 240);

  auto first = source->sampleAt(0ms);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->imageBuffer()->width(), 320);
  const Rgb before = colourAt(*first, 60, 60);
  EXPECT_EQ(before, (Rgb{0, 0, 0}));
  EXPECT_FALSE(source->sampleAt(33ms)) << "nothing changed";
  auto nv12 = X11ScreenSource::open(display_, platform::PixelFormat::NV12, 6, 30, &error);
  ASSERT_TRUE(nv12) << error;
  auto converted = nv12->sampleAt(0ms);
  ASSERT_TRUE(converted);
  EXPECT_EQ(converted->imageBuffer()->format(), platform::PixelFormat::NV12);
  EXPECT_EQ(converted->orientationAttachment(), 6);

  testing::ChildProcess window(findProgram("xlogo"),
                               {"-display", display_, "-geometry", "100x100+20+20", "-bg", "red", "-fg", "red"});
  // Grab until the window shows; each grab that finds no change delivers nothing.
  std::optional<platform::SampleBuffer> changed;
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (std::chrono::steady_clock::now() < end) {
    if (auto sample = source->sampleAt(0ms)) {
      if (colourAt(*sample, 60, 60) == Rgb{255, 0, 0}) {
        changed = sample;
        break;
      }
    }
    std::this_thread::sleep_for(20ms);  // the pace of a capture thread, not a wait for an outcome
  }
  ASSERT_TRUE(changed) << "the red window never showed";
  EXPECT_EQ(colourAt(*changed, 200, 200), (Rgb{0, 0, 0}));
  EXPECT_EQ(colourAt(*changed, 0, 0), (Rgb{0, 0, 0}));
}

TEST(X11ScreenSourceOpenTest, ADisplayThatCannotBeOpenedIsRefused) {
  std::string error;
  EXPECT_FALSE(X11ScreenSource::open(":987", platform::PixelFormat::BGRA, 1, 30, &error));
  EXPECT_NE(error.find(":987"), std::string::npos);
}

}  // namespace
}  // namespace zephlo
