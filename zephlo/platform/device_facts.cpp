#include "zephlo/platform/device_facts.hpp"

#include "zephlo/base/utf8.hpp"

#include <sys/utsname.h>

#include <cstdint>
#include <ctime>
#include <fstream>
#include <string_view>

namespace zephlo::platform {

namespace {

// The kernel hands out bytes; the device model is text only when they are UTF-8.
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
  if (haveNames && isValidUtf8(std::string_view(names.machine)) && names.machine[0] != '\0') facts.machine = names.machine;

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
