#include "zephlo/platform/location_manager.hpp"

#include <utility>

namespace zephlo::platform {

namespace {

// Linux offers no location services: nothing is ever authorised or known.
class LinuxLocationManager final : public LocationManager {
 public:
  void setDelegate(LocationManagerDelegate* delegate) override { delegate_ = delegate; }
  void requestLocation() override {}
  std::optional<Location> location() const override { return std::nullopt; }

 private:
  LocationManagerDelegate* delegate_ = nullptr;  // not owned
};

class LinuxBackend final : public LocationManager::Backend {
 public:
  LocationAuthorization authorizationStatus() const override { return LocationAuthorization::kNotDetermined; }
  bool locationServicesEnabled() const override { return false; }
  std::unique_ptr<LocationManager> makeManager() override { return std::make_unique<LinuxLocationManager>(); }
};

std::shared_ptr<LocationManager::Backend>& installed() {
  static std::shared_ptr<LocationManager::Backend> backend = std::make_shared<LinuxBackend>();
  return backend;
}

}  // namespace

LocationAuthorization LocationManager::authorizationStatus() { return installed()->authorizationStatus(); }
bool LocationManager::locationServicesEnabled() { return installed()->locationServicesEnabled(); }
std::unique_ptr<LocationManager> LocationManager::create() { return installed()->makeManager(); }

void LocationManager::setBackend(std::shared_ptr<Backend> backend) {
  installed() = backend ? std::move(backend) : std::make_shared<LinuxBackend>();
}

}  // namespace zephlo::platform
