#include "apps/broadcast/broadcast_options.hpp"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cmath>

#include "zephlo/platform/keychain_store.hpp"

namespace zephlo {

namespace {

std::optional<double> positiveNumber(std::string_view text) {
  double value = 0;
  const auto* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || !std::isfinite(value) || value <= 0) return std::nullopt;
  return value;
}

}  // namespace

int BroadcastOptions::sampleWidth() const { return static_cast<int>(std::lround(screen.width * screen.scale)); }
int BroadcastOptions::sampleHeight() const { return static_cast<int>(std::lround(screen.height * screen.scale)); }

std::optional<platform::ScreenBounds> parseScreen(std::string_view text) {
  const auto x = text.find('x');
  const auto at = text.find('@');
  if (x == std::string_view::npos || at == std::string_view::npos || at < x) return std::nullopt;
  auto width = positiveNumber(text.substr(0, x));
  auto height = positiveNumber(text.substr(x + 1, at - x - 1));
  auto scale = positiveNumber(text.substr(at + 1));
  if (!width || !height || !scale) return std::nullopt;
  const double pixelsWide = *width * *scale, pixelsHigh = *height * *scale;
  if (pixelsWide < 1 || pixelsHigh < 1 || pixelsWide > platform::PixelBuffer::kMaxDimension ||
      pixelsHigh > platform::PixelBuffer::kMaxDimension) {
    return std::nullopt;
  }
  return platform::ScreenBounds{*width, *height, *scale};
}

std::optional<SourceSpec> parseSource(std::string_view text) {
  if (text == "testpattern") return SourceSpec{SourceKind::TestPattern, ""};
  if (text == "x11") return SourceSpec{SourceKind::X11, ""};
  if (text == "wayland") return SourceSpec{SourceKind::Wayland, ""};
  if (text == "screen") return SourceSpec{SourceKind::Screen, ""};
  if (text.starts_with("x11:") && text.size() > 4) return SourceSpec{SourceKind::X11, std::string(text.substr(4))};
  if (text.starts_with("images:") && text.size() > 7) {
    return SourceSpec{SourceKind::Images, std::string(text.substr(7))};
  }
  return std::nullopt;
}

std::variant<BroadcastOptions, int> parseBroadcastOptions(int argc, const char* const* argv, std::ostream& out,
                                                          std::ostream& err) {
  CLI::App app{"Runs one screen broadcast through the Zephlo broadcast extension."};
  BroadcastOptions options;
  std::string bundle, keychain, source = "testpattern", screen = "390x844@3", pixelFormat = "bgra", log;
  app.add_option("--bundle", bundle, "The extension's bundle, a JSON file (default: the built-in demo bundle)");
  app.add_option("--keychain", keychain,
                 "Keychain database (default: $ZEPHLO_KEYCHAIN, else $XDG_DATA_HOME/zephlo/keychain.db, "
                 "else ~/.local/share/zephlo/keychain.db)");
  app.add_option("--source", source, "testpattern, images:DIR, x11[:DISPLAY], wayland or screen")->capture_default_str();
  auto* screenOption = app.add_option("--screen", screen,
                                      "Screen size in points and pixel scale, WxH@S; for a real screen only S is "
                                      "used (default there: the desktop's own scale)")
                           ->capture_default_str();
  app.add_option("--sample-rate", options.sampleRate, "Samples delivered per second")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--orientation", options.orientation, "Orientation code attached to every sample")
      ->capture_default_str();
  app.add_option("--pixel-format", pixelFormat, "bgra or nv12")
      ->capture_default_str()
      ->check(CLI::IsMember({"bgra", "nv12"}));
  app.add_flag("--stats", options.stats, "Print a status line on stdout every second");
  app.add_option("--log", log, "Where the system log goes: stderr (the default) or syslog")
      ->check(CLI::IsMember({"stderr", "syslog"}));

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e, out, err);
  }

  auto parsedSource = parseSource(source);
  if (!parsedSource) {
    err << "--source: expected testpattern, images:DIR, x11[:DISPLAY], wayland or screen, got " << source << "\n";
    return static_cast<int>(CLI::ExitCodes::ValidationError);
  }
  auto parsedScreen = parseScreen(screen);
  if (!parsedScreen) {
    err << "--screen: expected WxH@S with positive numbers, got " << screen << "\n";
    return static_cast<int>(CLI::ExitCodes::ValidationError);
  }
  options.source = *parsedSource;
  options.screen = *parsedScreen;
  options.screenGiven = screenOption->count() > 0;
  if (!bundle.empty()) options.bundlePath = bundle;
  options.keychainPath = keychain.empty() ? platform::KeychainStore::defaultPath() : keychain;
  options.pixelFormat = pixelFormat == "nv12" ? platform::PixelFormat::NV12 : platform::PixelFormat::BGRA;
  options.syslog = log == "syslog";
  return options;
}

}  // namespace zephlo
