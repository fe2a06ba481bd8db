// BroadcastOptions: zephlo-broadcast's command line, parsed.
//
//   zephlo-broadcast [--bundle FILE] [--keychain FILE]
//                    [--source testpattern|images:DIR|x11[:DISPLAY]|wayland|screen] [--screen WxH@S]
//                    [--sample-rate HZ] [--orientation N] [--pixel-format bgra|nv12]
//                    [--stats] [--log stderr|syslog]
//
// Plain values; parsed on the main thread before anything else starts.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>

#include "zephlo/platform/pixel_buffer.hpp"
#include "zephlo/platform/screen.hpp"

namespace zephlo {

enum class SourceKind { TestPattern, Images, X11, Wayland, Screen };

struct SourceSpec {
  SourceKind kind = SourceKind::TestPattern;
  // The folder of `images:DIR`, the display of `x11:DISPLAY` (empty: $DISPLAY).
  std::string argument;
  bool operator==(const SourceSpec&) const = default;
  // A desktop's screen, whose size is its own, rather than a synthetic one.
  bool isRealScreen() const { return kind == SourceKind::X11 || kind == SourceKind::Wayland || kind == SourceKind::Screen; }
};

struct BroadcastOptions {
  std::optional<std::string> bundlePath;
  std::string keychainPath;
  SourceSpec source;
  platform::ScreenBounds screen{390, 844, 3};
  // Whether --screen was given: its scale then overrides a real screen's own.
  bool screenGiven = false;
  double sampleRate = 30;
  std::int64_t orientation = 1;
  platform::PixelFormat pixelFormat = platform::PixelFormat::BGRA;
  bool stats = false;
  bool syslog = false;

  // The size of every sample in pixels: the screen's points times its scale.
  int sampleWidth() const;
  int sampleHeight() const;
};

// "390x844@3": width and height in points, then the pixel scale (all positive).
std::optional<platform::ScreenBounds> parseScreen(std::string_view text);
// "testpattern", "images:DIR" (DIR not empty), "x11", "x11:DISPLAY", "wayland" or
// "screen" (Wayland when $WAYLAND_DISPLAY is set, else X11; decided when the source opens).
std::optional<SourceSpec> parseSource(std::string_view text);

// The options, or the exit status when the command line says to stop here
// (0 after --help, which is printed on `out`; an error, printed on `err`). The
// keychain defaults to the keychain store's default path.
std::variant<BroadcastOptions, int> parseBroadcastOptions(int argc, const char* const* argv, std::ostream& out,
                                                          std::ostream& err);

}  // namespace zephlo
