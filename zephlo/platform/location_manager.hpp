// LocationManager: the device's location services as the platform offers them:
// the authorization state and whether the services are on (class-level), and a
// manager object that takes one-shot location requests and remembers the last
// known location.
//
// The backend behind the class-level calls and `create` is this machine's unless
// a test installs another. Linux has no location services: its backend reports
// "not determined" (0) and services off, and its managers never know a location.
//
// Ownership: `create` hands out a manager the caller owns. The delegate is not
// owned: whoever sets it keeps it alive for as long as the manager may call it.
//
// THREADING: the backend is installed before use (set-up or test fixture); the
// rest runs on the queue its caller uses. A manager calls its delegate on the
// main queue.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zephlo::platform {

// The platform's authorization codes.
enum class LocationAuthorization : int {
  kNotDetermined = 0,
  kRestricted = 1,
  kDenied = 2,
  kAuthorizedAlways = 3,
  kAuthorizedWhenInUse = 4,
};

struct Location {
  double latitude = 0;            // degrees
  double longitude = 0;           // degrees
  double altitude = 0;            // metres
  double horizontalAccuracy = 0;  // metres
  double verticalAccuracy = 0;    // metres
};

class LocationManagerDelegate {
 public:
  virtual ~LocationManagerDelegate() = default;
  virtual void didUpdateLocations(const std::vector<Location>& locations) = 0;
  virtual void didFailWithError(const std::string& description) = 0;
};

class LocationManager {
 public:
  // What stands behind the class-level operations.
  class Backend {
   public:
    virtual ~Backend() = default;
    virtual LocationAuthorization authorizationStatus() const = 0;
    virtual bool locationServicesEnabled() const = 0;
    virtual std::unique_ptr<LocationManager> makeManager() = 0;
  };

  static LocationAuthorization authorizationStatus();
  static bool locationServicesEnabled();
  static std::unique_ptr<LocationManager> create();
  // Installs `backend`; null restores this machine's.
  static void setBackend(std::shared_ptr<Backend> backend);

  virtual ~LocationManager() = default;
  virtual void setDelegate(LocationManagerDelegate* delegate) = 0;
  // Starts a one-shot request; the answer, if any, reaches the delegate later.
  virtual void requestLocation() = 0;
  // The last known location.
  virtual std::optional<Location> location() const = 0;
};

}  // namespace zephlo::platform
