#include "apps/broadcast/broadcast_options.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <vector>

namespace zephlo {
namespace {

std::variant<BroadcastOptions, int> parse(std::vector<const char*> args, std::string* errors = nullptr) {
  args.insert(args.begin(), "zephlo-broadcast");
  std::ostringstream out, err;
  auto result = parseBroadcastOptions(static_cast<int>(args.size()), args.data(), out, err);
  if (errors) *errors = err.str();
  return result;
}

TEST(BroadcastOptionsTest, DefaultsAreAPhoneSizedTestPatternAt30Hz) {
  auto parsed = parse({"--keychain", "/tmp/k.db"});
  ASSERT_TRUE(std::holds_alternative<BroadcastOptions>(parsed));
  const auto& o = std::get<BroadcastOptions>(parsed);
  EXPECT_EQ(o.source, (SourceSpec{SourceKind::TestPattern, ""}));
  EXPECT_EQ(o.sampleWidth(), 1170);
  EXPECT_EQ(o.sampleHeight(), 2532);
  EXPECT_EQ(o.sampleRate, 30);
  EXPECT_EQ(o.orientation, 1);
  EXPECT_EQ(o.pixelFormat, platform::PixelFormat::BGRA);
  EXPECT_FALSE(o.stats);
  EXPECT_FALSE(o.syslog);
  EXPECT_FALSE(o.bundlePath);
  EXPECT_EQ(o.keychainPath, "/tmp/k.db");
}

TEST(BroadcastOptionsTest, EveryOptionIsTaken) {
  auto parsed = parse({"--bundle", "b.json", "--keychain", "k.db", "--source", "images:/pics", "--screen",
                       "100x200@2", "--sample-rate", "10", "--orientation", "6", "--pixel-format", "nv12", "--stats",
                       "--log", "syslog"});
  ASSERT_TRUE(std::holds_alternative<BroadcastOptions>(parsed));
  const auto& o = std::get<BroadcastOptions>(parsed);
  EXPECT_EQ(o.bundlePath, "b.json");
  EXPECT_EQ(o.source, (SourceSpec{SourceKind::Images, "/pics"}));
  EXPECT_EQ(o.sampleWidth(), 200);
  EXPECT_EQ(o.sampleHeight(), 400);
  EXPECT_EQ(o.sampleRate, 10);
  EXPECT_EQ(o.orientation, 6);
  EXPECT_EQ(o.pixelFormat, platform::PixelFormat::NV12);
  EXPECT_TRUE(o.stats);
  EXPECT_TRUE(o.syslog);
}

TEST(BroadcastOptionsTest, KeychainDefaultsToTheEnvironmentsStore) {
  ::setenv("ZEPHLO_KEYCHAIN", "/tmp/from-env.db", 1);
  auto parsed = parse({});
  ::unsetenv("ZEPHLO_KEYCHAIN");
  ASSERT_TRUE(std::holds_alternative<BroadcastOptions>(parsed));
  EXPECT_EQ(std::get<BroadcastOptions>(parsed).keychainPath, "/tmp/from-env.db");
}

TEST(BroadcastOptionsTest, SourcesAreParsed) {
  EXPECT_EQ(parseSource("testpattern"), (SourceSpec{SourceKind::TestPattern, ""}));
  EXPECT_EQ(parseSource("x11"), (SourceSpec{SourceKind::X11, ""}));
  EXPECT_EQ(parseSource("x11::99"), (SourceSpec{SourceKind::X11, ":99"}));
  EXPECT_EQ(parseSource("images:a/b"), (SourceSpec{SourceKind::Images, "a/b"}));
  for (const char* bad : {"", "images", "images:", "x11:", "camera", "TestPattern"}) {
    EXPECT_FALSE(parseSource(bad)) << bad;
  }
}

TEST(BroadcastOptionsTest, ScreensAreParsed) {
  auto screen = parseScreen("390x844@3");
  ASSERT_TRUE(screen);
  EXPECT_EQ(screen->width, 390);
  EXPECT_EQ(screen->height, 844);
  EXPECT_EQ(screen->scale, 3);
  EXPECT_TRUE(parseScreen("320.5x480@1.5"));
  for (const char* bad : {"", "390x844", "390@3", "0x844@3", "390x-1@3", "390x844@0", "axb@c", "390x844@3x",
                          "100000x10@1"}) {
    EXPECT_FALSE(parseScreen(bad)) << bad;
  }
}

TEST(BroadcastOptionsTest, BadValuesStopWithAnErrorStatus) {
  for (std::vector<const char*> args : std::vector<std::vector<const char*>>{
           {"--source", "camera"},
           {"--screen", "big"},
           {"--pixel-format", "rgb"},
           {"--log", "file"},
           {"--sample-rate", "0"},
           {"--no-such-option"},
       }) {
    std::string errors;
    auto parsed = parse(args, &errors);
    ASSERT_TRUE(std::holds_alternative<int>(parsed)) << args[0];
    EXPECT_NE(std::get<int>(parsed), 0) << args[0];
    EXPECT_FALSE(errors.empty()) << args[0];
  }
}

TEST(BroadcastOptionsTest, HelpStopsWithStatusZero) {
  auto parsed = parse({"--help"});
  ASSERT_TRUE(std::holds_alternative<int>(parsed));
  EXPECT_EQ(std::get<int>(parsed), 0);
}

}  // namespace
}  // namespace zephlo
