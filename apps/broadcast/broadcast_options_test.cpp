#include "apps/broadcast/broadcast_options.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <tuple>
#include <utility>
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

// The options parsed from `args`, which must not stop the program.
BroadcastOptions options(std::vector<const char*> args) {
  auto parsed = parse(std::move(args));
  EXPECT_TRUE(std::holds_alternative<BroadcastOptions>(parsed));
  auto* o = std::get_if<BroadcastOptions>(&parsed);
  return o ? *o : BroadcastOptions{};
}

// Every parsed field, to compare in one go.
auto fields(const BroadcastOptions& o) {
  return std::tuple(o.bundlePath, o.keychainPath, o.source, o.sampleWidth(), o.sampleHeight(), o.screenGiven,
                    o.sampleRate, o.orientation, o.pixelFormat, o.stats, o.syslog);
}

TEST(BroadcastOptionsTest, DefaultsAreAPhoneSizedTestPatternAt30HzAndEveryOptionIsTaken) {
  ::setenv("ZEPHLO_KEYCHAIN", "/tmp/from-env.db", 1);
  const auto defaults = options({});
  ::unsetenv("ZEPHLO_KEYCHAIN");
  EXPECT_EQ(fields(defaults), std::tuple(std::optional<std::string>(), std::string("/tmp/from-env.db"),
                                         SourceSpec{SourceKind::TestPattern, ""}, 1170, 2532, false, 30.0,
                                         std::int64_t{1}, platform::PixelFormat::BGRA, false, false));

  const auto o = options({"--bundle", "b.json", "--keychain", "k.db", "--source", "images:/pics", "--screen",
                          "100x200@2", "--sample-rate", "10", "--orientation", "6", "--pixel-format", "nv12", "--stats",
                          "--log", "syslog"});
  EXPECT_EQ(fields(o), std::tuple(std::optional<std::string>("b.json"), std::string("k.db"),
                                  SourceSpec{SourceKind::Images, "/pics"}, 200, 400, true, 10.0, std::int64_t{6},
                                  platform::PixelFormat::NV12, true, true));
  EXPECT_FALSE(options({"--log", "stderr"}).syslog);  // the default, named
}

TEST(BroadcastOptionsTest, SourcesAndScreensAreParsed) {
  EXPECT_EQ(parseSource("testpattern"), (SourceSpec{SourceKind::TestPattern, ""}));
  EXPECT_EQ(parseSource("x11"), (SourceSpec{SourceKind::X11, ""}));
  EXPECT_EQ(parseSource("x11::99"), (SourceSpec{SourceKind::X11, ":99"}));
  EXPECT_EQ(parseSource("screen"), (SourceSpec{SourceKind::Screen, ""}));
  for (const char* bad : {"", "images", "images:", "x11:", "camera", "TestPattern"}) {
    EXPECT_FALSE(parseSource(bad)) << bad;
  }

  // A whole screen and folder path show in the options' own case.
  EXPECT_TRUE(parseScreen("320.5x480@1.5"));
  for (const char* bad : {"", "390x844", "390@3", "0x844@3", "390x-1@3", "390x844@0", "axb@c", "390x844@3x",
                          "100000x10@1"}) {
    EXPECT_FALSE(parseScreen(bad)) << bad;
  }
}

TEST(BroadcastOptionsTest, HelpStopsWithStatusZeroAndBadValuesWithAnError) {
  const auto help = parse({"--help"});
  EXPECT_TRUE(std::holds_alternative<int>(help) && std::get<int>(help) == 0);
  for (std::vector<const char*> args : std::vector<std::vector<const char*>>{
           {"--source", "camera"}, {"--screen", "big"}, {"--pixel-format", "rgb"}, {"--log", "file"},
           {"--sample-rate", "0"}, {"--no-such-option"}}) {
    SCOPED_TRACE(args[0]);
    std::string errors;
    auto parsed = parse(args, &errors);
    ASSERT_TRUE(std::holds_alternative<int>(parsed));
    EXPECT_NE(std::get<int>(parsed), 0);
    EXPECT_FALSE(errors.empty());
  }
}

}  // namespace
}  // namespace zephlo
