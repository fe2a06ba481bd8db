#include "zephlo/platform/device_facts.hpp"

#include <sys/utsname.h>

#include <cstdint>
#include <ctime>
#include <fstream>
#include <string_view>

namespace zephlo::platform {

namespace {

// The kernel hands out bytes; the device model is text only when they are UTF-8.
bool isUtf8(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size()) {
    const auto c = static_cast<unsigned char>(s[i]);
    std::size_t len = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    if (len == 0 || i + len > s.size()) return false;
    std::uint32_t cp = len == 1 ? c : c & (0x7F >> len);
    for (std::size_t k = 1; k < len; ++k) {
      const auto cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    static constexpr std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += len;
  }
  return true;
}

std::optional<std::string> osReleaseVersion() {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream file(path);
    if (!file) continue;
    std::string line;
    while (std::getline(file, line)) {
      constexpr std::string_view kKey = "VERSION_ID=";
      if (!line.starts_with(kKey)) continue;
      std::string value = line.substr(kKey.size());
      if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
        value = value.substr(1, value.size() - 2);
      if (!value.empty()) return value;
    }
    return std::nullopt;  // the first file found is the system's
  }
  return std::nullopt;
}

}  // namespace

DeviceFacts DeviceFacts::current() {
  DeviceFacts facts;
  utsname names{};
  const bool haveNames = uname(&names) == 0;
  if (haveNames && isUtf8(names.machine) && names.machine[0] != '\0') facts.machine = names.machine;

  tzset();
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  char zone[64] = {};
  if (localtime_r(&now, &local) && std::strftime(zone, sizeof zone, "%Z", &local) > 0)
    facts.timeZoneAbbreviation = zone;

  facts.systemVersion = osReleaseVersion();
  if (!facts.systemVersion && haveNames && names.release[0] != '\0') facts.systemVersion = names.release;
  return facts;
}

}  // namespace zephlo::platform
