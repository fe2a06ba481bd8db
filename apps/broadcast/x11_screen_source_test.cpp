#include "apps/broadcast/x11_screen_source.hpp"

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "apps/broadcast/broadcast_host.hpp"
#include "apps/broadcast/canvas.hpp"
#include "apps/broadcast/child_process.hpp"
#include "apps/broadcast/pixel_conversion.hpp"
#include "zephlo/testing/sample_recorder.hpp"

namespace zephlo {
namespace {

using namespace std::chrono_literals;

Rgb colourAt(const platform::SampleBuffer& sample, int x, int y) {
  return Canvas(const_cast<platform::PixelBuffer&>(*sample.imageBuffer())).at(x, y);
}

// An Xvfb server on a free display number with a black root window, started
// with `extra` arguments (extensions to leave out, or "-fbdir" for its screen in a
// file of a directory of its own), and a connection of its own to draw on the
// root window with.
class X11ScreenSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists("/usr/bin/Xvfb")) GTEST_SKIP() << "Xvfb is not installed";
  }
  void TearDown() override { stopServer(); }

  void startServer(const std::vector<std::string>& extra, const std::string& size = "320x240") {
    stopServer();
    // Xvfb prints the display number it picked on stdout (-displayfd 1).
    std::vector<std::string> args{"-displayfd", "1", "-screen", "0", size + "x24", "-nolisten", "tcp", "-br"};
    args.insert(args.end(), extra.begin(), extra.end());
    if (args.back() == "-fbdir") {
      char dir[] = "/tmp/zephlo-xvfb-XXXXXX";
      ASSERT_TRUE(::mkdtemp(dir));
      args.push_back(fbdir_ = dir);
    }
    server_ = std::make_unique<testing::ChildProcess>("/usr/bin/Xvfb", args);
    ASSERT_TRUE(server_->waitForStdout([](const std::string& line) { return !line.empty(); }));
    display_ = ":" + server_->stdoutLines().front();
    painter_ = xcb_connect(display_.c_str(), nullptr);
    ASSERT_FALSE(xcb_connection_has_error(painter_));
    root_ = xcb_setup_roots_iterator(xcb_get_setup(painter_)).data->root;
  }
  void stopServer() {
    if (painter_) xcb_disconnect(painter_);
    painter_ = nullptr;
    server_.reset();
    if (!fbdir_.empty()) std::filesystem::remove_all(fbdir_);
    fbdir_.clear();
  }

  void fill(int x, int y, int width, int height, std::uint32_t rgb) {
    const xcb_gcontext_t gc = xcb_generate_id(painter_);
    xcb_create_gc(painter_, gc, root_, XCB_GC_FOREGROUND, &rgb);
    const xcb_rectangle_t rect{static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                               static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height)};
    xcb_poly_fill_rectangle(painter_, root_, gc, 1, &rect);
    xcb_free_gc(painter_, gc);
    std::free(xcb_get_input_focus_reply(painter_, xcb_get_input_focus(painter_), nullptr));  // drawn before we go on
  }

  std::unique_ptr<testing::ChildProcess> server_;
  std::string display_;
  std::string fbdir_;
  xcb_connection_t* painter_ = nullptr;
  xcb_window_t root_ = 0;
};

// Each way of reading the screen delivers the screen, then what is drawn on it,
// changing nothing else; DAMAGE delivers nothing while the screen is still. At
// a width whose rows are padded in the samples, the whole screen cannot be read
// straight into them.
TEST_F(X11ScreenSourceTest, EachMethodDeliversTheScreenAndWhatIsDrawnOnIt) {
  for (const auto& [left, width] : {std::pair{"", 320}, {"DAMAGE", 320}, {"MIT-SHM", 320}, {"", 330}}) {
    SCOPED_TRACE("without " + std::string(left) + " at width " + std::to_string(width));
    startServer(*left ? std::vector<std::string>{"-extension", left} : std::vector<std::string>{},
                std::to_string(width) + "x240");
    std::string error;
    auto source = X11ScreenSource::open(display_, platform::PixelFormat::BGRA, 6, 30, &error);
    ASSERT_TRUE(source) << error;
    const bool damage = std::string(left) != "DAMAGE";
    EXPECT_EQ(source->method(), std::string(damage ? "DAMAGE" : "polling") +
                                    (std::string(left) != "MIT-SHM" ? " with MIT-SHM" : " with GetImage"));
    fill(0, 0, width, 240, 0x203040);
    testing::SampleRecorder samples;
    source->start(samples.sink(), [](const std::string& why) { ADD_FAILURE() << why; });

      // The first sample may come before the fill reaches the screen; wait for it.
    auto first = samples.waitForSampleThat(1, [](const auto& s) { return colourAt(s, 300, 200) == Rgb{0x20, 0x30, 0x40}; });
    ASSERT_TRUE(first) << "the filled screen never arrived";
    EXPECT_EQ(first->imageBuffer()->width(), width);
    EXPECT_EQ(first->imageBuffer()->height(), 240);
    EXPECT_EQ(first->orientationAttachment(), 6);
    const std::size_t before = samples.sampleCount();
    EXPECT_TRUE(!damage || !samples.waitForSample(before + 1, 1s)) << "a still screen delivered a sample";

    fill(100, 80, 20, 10, 0xff0000);
    auto changed = samples.waitForSample(before + 1);
    ASSERT_TRUE(changed);
    EXPECT_TRUE(!damage || !samples.waitForSample(before + 2, 500ms)) << "one change, one sample";
    EXPECT_EQ(colourAt(*changed, 110, 85), (Rgb{255, 0, 0}));
    // Every pixel outside the rectangle is as it was.
    const auto& a = *first->imageBuffer();
    const auto& b = *changed->imageBuffer();
    int differing = 0;
    for (int y = 0; y < 240; ++y) {
      for (int x = 0; x < width; ++x) {
        const bool inside = x >= 100 && x < 120 && y >= 80 && y < 90;
        const bool same = std::memcmp(a.plane(0) + y * a.stride(0) + 4 * x, b.plane(0) + y * b.stride(0) + 4 * x, 4) == 0;
        differing += inside == same;
      }
    }
    EXPECT_EQ(differing, 0);

    // A window mapped by another client arrives too.
    testing::ChildProcess window("/usr/bin/xlogo",
                                 {"-display", display_, "-geometry", "60x60+200+20", "-bg", "green", "-fg", "green"});
    auto shown = samples.waitForSampleThat(samples.sampleCount() + 1,
                                           [](const auto& s) { return colourAt(s, 230, 50) == Rgb{0, 255, 0}; });
    ASSERT_TRUE(shown) << "the window never showed";
    EXPECT_EQ(colourAt(*shown, 110, 85), (Rgb{255, 0, 0})) << "a reused buffer lost an earlier change";
    source->stop();
  }
}

// The desktop's scale comes from Xft.dpi, and the source ends when the display
// goes away. (A new screen size is followed in the end-to-end test on Xvnc, whose
// RandR can change it.)
TEST_F(X11ScreenSourceTest, TakesTheScaleFromXftDpiAndEndsWhenTheDisplayGoes) {
  startServer({});
  std::string error;
  auto plain = X11ScreenSource::open(display_, platform::PixelFormat::NV12, 1, 30, &error);
  ASSERT_TRUE(plain) << error;
  EXPECT_EQ(plain->desktopScale(), 1);
  const std::string resources = "Xft.antialias:\t1\nXft.dpi:\t192\n";
  xcb_change_property(painter_, XCB_PROP_MODE_REPLACE, root_, XCB_ATOM_RESOURCE_MANAGER, XCB_ATOM_STRING, 8,
                      static_cast<std::uint32_t>(resources.size()), resources.data());
  xcb_flush(painter_);
  auto hidpi = X11ScreenSource::open(display_, platform::PixelFormat::NV12, 1, 30, &error);
  ASSERT_TRUE(hidpi) << error;
  EXPECT_EQ(hidpi->desktopScale(), 2);

  testing::SampleRecorder samples;
  samples.listenTo(*hidpi);
  auto first = samples.waitForSample(1);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->imageBuffer()->format(), platform::PixelFormat::NV12);
  server_.reset();
  EXPECT_EQ(samples.waitForEnd(), "The X11 display went away");
  hidpi->stop();  // before `samples` goes
}

// NV12 samples are converted only where the screen changed, yet each is the
// whole screen converted, as from the BGRA sample of the same screen: at odd
// places and sizes, up to the bottom right corner of an odd-sized screen, with
// both pooled buffers reused.
TEST_F(X11ScreenSourceTest, Nv12SamplesAreTheWholeScreenConverted) {
  startServer({}, "331x241");
  std::string error;
  auto bgra = X11ScreenSource::open(display_, platform::PixelFormat::BGRA, 1, 30, &error);
  auto nv12 = X11ScreenSource::open(display_, platform::PixelFormat::NV12, 1, 30, &error);
  ASSERT_TRUE(bgra && nv12) << error;
  testing::SampleRecorder bgraSamples, nv12Samples;
  bgraSamples.listenTo(*bgra);
  nv12Samples.listenTo(*nv12);
  const auto same = [](const platform::PixelBuffer& a, const platform::PixelBuffer& b) {
    for (int p = 0; p < 2; ++p) {
      const auto rowBytes = static_cast<std::size_t>(p == 0 ? a.width() : 2 * a.planeWidth(1));
      for (int y = 0; y < a.planeHeight(p); ++y) {
        if (std::memcmp(a.plane(p) + y * a.stride(p), b.plane(p) + y * b.stride(p), rowBytes) != 0) return false;
      }
    }
    return true;
  };
  for (const auto& [x, y, width, height, rgb] : {std::tuple{0, 0, 331, 241, 0x203040}, {101, 81, 21, 11, 0xff0000},
                                                 {7, 200, 3, 3, 0x00ff00}, {320, 230, 11, 11, 0x0000ff},
                                                 {150, 3, 41, 5, 0xffff00}}) {
    SCOPED_TRACE(::testing::Message() << "after the fill at " << x << "," << y);
    fill(x, y, width, height, static_cast<std::uint32_t>(rgb));
    const Rgb colour{static_cast<std::uint8_t>(rgb >> 16), static_cast<std::uint8_t>(rgb >> 8),
                     static_cast<std::uint8_t>(rgb)};
    auto screen = bgraSamples.waitForSampleThat(
        1, [&](const auto& s) { return colourAt(s, x + width - 1, y + height - 1) == colour; });
    ASSERT_TRUE(screen);
    auto expected = platform::PixelBuffer::create(platform::PixelFormat::NV12, 331, 241);
    convertBgraToNv12(screen->imageBuffer()->plane(0), screen->imageBuffer()->stride(0), 331, 241, *expected);
    EXPECT_TRUE(nv12Samples.waitForSampleThat(1, [&](const auto& s) { return same(*s.imageBuffer(), *expected); }));
  }
  bgra->stop();  // before the recorders go
  nv12->stop();
}

// A change the server reports no damage for (written straight into its screen
// file here) still reaches the samples.
TEST_F(X11ScreenSourceTest, AChangeWithoutDamageStillArrives) {
  startServer({"-fbdir"});
  std::string error;
  auto source = X11ScreenSource::open(display_, platform::PixelFormat::BGRA, 1, 30, &error);
  ASSERT_TRUE(source) << error;
  ASSERT_EQ(source->method(), "DAMAGE with MIT-SHM");
  testing::SampleRecorder samples;
  source->start(samples.sink(), [](const std::string& why) { ADD_FAILURE() << why; });
  ASSERT_TRUE(samples.waitForSample(1));

  // An XWD dump: big-endian header words, then the colour map, then the rows.
  std::fstream file(fbdir_ + "/Xvfb_screen0", std::ios::binary | std::ios::in | std::ios::out);
  unsigned char header[0x50] = {};
  file.read(reinterpret_cast<char*>(header), sizeof header);
  const auto word = [&](int at) {
    return std::streamoff{header[at]} << 24 | header[at + 1] << 16 | header[at + 2] << 8 | header[at + 3];
  };
  const std::streamoff pixels = word(0) + word(0x4c) * 12, rowBytes = word(0x30);
  for (int y = 200; y < 210; ++y) {
    file.seekp(pixels + y * rowBytes + 150 * 4);
    for (int x = 0; x < 10; ++x) file.write("\0\0\xff\0", 4);  // red, in BGRA
  }
  file.flush();
  EXPECT_TRUE(samples.waitForSampleThat(2, [](const auto& s) { return colourAt(s, 155, 205) == Rgb{255, 0, 0}; }, 10s))
      << "the change never arrived";
  source->stop();  // before `samples` goes
}

TEST(X11ScreenSourceOpenTest, ADisplayThatCannotBeOpenedIsRefusedAndScreenNeedsADesktop) {
  std::string error;
  EXPECT_FALSE(X11ScreenSource::open(":987", platform::PixelFormat::BGRA, 1, 30, &error));
  EXPECT_NE(error.find(":987"), std::string::npos);

  std::map<std::string, std::optional<std::string>> saved;
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
    const char* value = std::getenv(name);
    saved[name] = value ? std::optional<std::string>(value) : std::nullopt;
    ::unsetenv(name);
  }
  BroadcastOptions options;
  options.source = SourceSpec{SourceKind::Screen, ""};
  error.clear();
  EXPECT_FALSE(makeScreenSource(options, &error));
  EXPECT_NE(error.find("$WAYLAND_DISPLAY"), std::string::npos) << error;
  EXPECT_NE(error.find("$DISPLAY"), std::string::npos) << error;
  ::setenv("DISPLAY", ":987", 1);
  EXPECT_FALSE(makeScreenSource(options, &error));
  EXPECT_NE(error.find(":987"), std::string::npos) << "the screen is $DISPLAY's: " << error;
  for (const auto& [name, value] : saved) value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
}

}  // namespace
}  // namespace zephlo
