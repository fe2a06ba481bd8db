// ZPHDeviceInfo: the description of the device and of the running bundle that the
// service receives when a session becomes active and with every device
// registration. Class-level only; it keeps no state of its own apart from the
// process-wide location manager (and its do-nothing delegate, ZPHDeviceLocation),
// created the first time location is both authorised and switched on, and kept
// for the life of the process.
//
// THREADING: call it from one queue at a time (the main queue in this system);
// the lazy creation of the location manager is not guarded.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zephlo/platform/location_manager.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

// The SDK's version, sent as "sdk_version" and in the "X-ZephloSDKVersion" header.
inline constexpr std::string_view kZephloVersionString = "2.6.0-alpha.1";

// The value itself when present, else the null marker (JSON null): maps sent to
// the service carry absent values as null rather than leaving them out.
template <typename T>
Value NotNil(const std::optional<T>& value) {
  return value ? Value(*value) : Value();
}

// The location manager's delegate. Answers are ignored: a later `info` call reads
// whatever location the manager has come to know by then.
class ZPHDeviceLocation final : public platform::LocationManagerDelegate {
 public:
  void didUpdateLocations(const std::vector<platform::Location>&) override {}
  void didFailWithError(const std::string&) override {}
};

class ZPHDeviceInfo {
 public:
  ZPHDeviceInfo() = delete;

  // The platform word, "ios" (also sent in the "X-ZephloPlatform" header).
  static std::string platform();
  // The running bundle's "ZPHBroadcastExtension" entry, if any.
  static std::optional<std::string> broadcastExtension();
  // A new device info map, in this order: "platform", "device", "device_locale",
  // "device_timezone", "os_version", "app_id", "app_name", "app_version",
  // "app_build" (each absent value as null), "app_build_configuration"
  // ("release"), "sdk_version"; then "broadcast_extension_id" when the bundle
  // names one; then the five location entries when location is authorised (3 or
  // 4), switched on, and a location is already known.
  static ValueMap info();

  // Releases the process-wide location manager, so that a test's location
  // backend is asked afresh.
  static void resetLocationManagerForTesting();
};

}  // namespace zephlo
