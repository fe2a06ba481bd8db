// DeviceFacts: what the device says about itself (hardware model, time zone,
// operating system version), read fresh from this machine on every call.
//
// A plain value; `current()` may be called on any thread.
#pragma once

#include <optional>
#include <string>

namespace zephlo::platform {

struct DeviceFacts {
  // The machine field of uname(2) ("x86_64", "aarch64"), absent when it is not
  // valid UTF-8 or uname fails.
  std::optional<std::string> machine;
  // The abbreviation of the local time zone now ("UTC", "CET", "CEST").
  std::optional<std::string> timeZoneAbbreviation;
  // The operating system's version: VERSION_ID of os-release ("12" on Debian 12),
  // or the kernel release from uname(2) on systems whose os-release names none
  // (rolling releases, Debian testing).
  std::optional<std::string> systemVersion;

  static DeviceFacts current();
};

}  // namespace zephlo::platform
