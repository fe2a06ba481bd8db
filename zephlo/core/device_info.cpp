#include "zephlo/core/device_info.hpp"

#include <memory>

#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/device_facts.hpp"

namespace zephlo {

namespace {

constexpr std::string_view kPlatform = "ios";
constexpr std::string_view kBuildConfiguration = "release";

struct LocationState {
  // The delegate outlives the manager that points at it.
  std::unique_ptr<ZPHDeviceLocation> delegate;
  std::unique_ptr<platform::LocationManager> manager;
};

LocationState& locationState() {
  static LocationState state;
  return state;
}

bool isAuthorised(platform::LocationAuthorization status) {
  return status == platform::LocationAuthorization::kAuthorizedAlways ||
         status == platform::LocationAuthorization::kAuthorizedWhenInUse;
}

}  // namespace

std::string ZPHDeviceInfo::platform() { return std::string(kPlatform); }

std::optional<std::string> ZPHDeviceInfo::broadcastExtension() {
  return platform::Bundle::main().info("ZPHBroadcastExtension");
}

ValueMap ZPHDeviceInfo::info() {
  const auto& bundle = platform::Bundle::main();
  const auto facts = platform::DeviceFacts::current();
  const auto& localizations = bundle.preferredLocalizations();
  const std::optional<std::string> locale =
      localizations.empty() ? std::nullopt : std::optional<std::string>(localizations.front());

  ValueMap info;
  info.set("platform", platform());
  info.set("device", NotNil(facts.machine));
  info.set("device_locale", NotNil(locale));
  info.set("device_timezone", NotNil(facts.timeZoneAbbreviation));
  info.set("os_version", NotNil(facts.systemVersion));
  info.set("app_id", NotNil(bundle.info("CFBundleIdentifier")));
  info.set("app_name", NotNil(bundle.info("CFBundleDisplayName")));
  info.set("app_version", NotNil(bundle.info("CFBundleShortVersionString")));
  info.set("app_build", NotNil(bundle.info("CFBundleVersion")));
  info.set("app_build_configuration", kBuildConfiguration);
  info.set("sdk_version", kZephloVersionString);
  if (const auto extension = broadcastExtension()) info.set("broadcast_extension_id", *extension);

  if (!isAuthorised(platform::LocationManager::authorizationStatus())) return info;
  if (!platform::LocationManager::locationServicesEnabled()) return info;

  auto& state = locationState();
  if (!state.manager) {
    state.delegate = std::make_unique<ZPHDeviceLocation>();
    state.manager = platform::LocationManager::create();
    state.manager->setDelegate(state.delegate.get());
  }
  // Not awaited: at best it serves a later call.
  state.manager->requestLocation();
  const auto location = state.manager->location();
  if (!location) return info;
  // A known location always has all five numbers.
  info.set("latitude", location->latitude);
  info.set("longitude", location->longitude);
  info.set("altitude", location->altitude);
  info.set("horizontal_accuracy", location->horizontalAccuracy);
  info.set("vertical_accuracy", location->verticalAccuracy);
  return info;
}

void ZPHDeviceInfo::resetLocationManagerForTesting() {
  auto& state = locationState();
  state.manager.reset();
  state.delegate.reset();
}

}  // namespace zephlo
