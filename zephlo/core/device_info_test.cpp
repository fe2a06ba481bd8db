#include "zephlo/core/device_info.hpp"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstdlib>
#include <memory>

#include "zephlo/platform/bundle.hpp"

namespace zephlo {
namespace {

using platform::Location;
using platform::LocationAuthorization;
using platform::LocationManager;

// Location services as a test sets them; counts what the device info asks of them.
class FakeLocation final : public LocationManager::Backend {
 public:
  LocationAuthorization status = LocationAuthorization::kNotDetermined;
  bool enabled = false;
  std::optional<Location> known;
  int managersMade = 0;
  int requests = 0;
  bool delegateSet = false;

  LocationAuthorization authorizationStatus() const override { return status; }
  bool locationServicesEnabled() const override { return enabled; }
  std::unique_ptr<LocationManager> makeManager() override {
    ++managersMade;
    return std::make_unique<Manager>(*this);
  }

 private:
  // Reset by each test before the services it reads from go.
  struct Manager final : LocationManager {
    explicit Manager(FakeLocation& services) : services(services) {}
    void setDelegate(platform::LocationManagerDelegate* delegate) override { services.delegateSet = delegate; }
    void requestLocation() override { ++services.requests; }
    std::optional<Location> location() const override { return services.known; }
    FakeLocation& services;
  };
};

class ZPHDeviceInfoTest : public ::testing::Test {
 protected:
  void SetUp() override { ZPHDeviceInfo::resetLocationManagerForTesting(); }
  void TearDown() override {
    ZPHDeviceInfo::resetLocationManagerForTesting();
    LocationManager::setBackend(nullptr);
    platform::Bundle::setMain(platform::Bundle::demo());
  }

  static void useBundle(std::string_view json) {
    std::string error;
    auto bundle = platform::Bundle::fromJson(json, &error);
    ASSERT_TRUE(bundle) << error;
    platform::Bundle::setMain(*bundle);
  }

  static std::vector<std::string> keys(const ValueMap& map) {
    std::vector<std::string> out;
    for (const auto& [key, value] : map) out.push_back(*key.asString());
    return out;
  }
};

const std::vector<std::string> kFixedKeys = {
    "platform", "device",      "device_locale", "device_timezone", "os_version",  "app_id",
    "app_name", "app_version", "app_build",     "app_build_configuration",        "sdk_version"};

// The time zone is read again on each call.
TEST_F(ZPHDeviceInfoTest, DescribesTheDeviceAndTheBundleInOrder) {
  const char* saved = std::getenv("TZ");
  const std::string savedTz = saved ? saved : "";
  setenv("TZ", "UTC0", 1);
  const auto info = ZPHDeviceInfo::info();
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  const auto cet = ZPHDeviceInfo::info().get("device_timezone");
  saved ? setenv("TZ", savedTz.c_str(), 1) : unsetenv("TZ");

  auto expectedKeys = kFixedKeys;
  expectedKeys.push_back("broadcast_extension_id");
  EXPECT_EQ(keys(info), expectedKeys);

  utsname names{};
  ASSERT_EQ(uname(&names), 0);
  const Value osVersion = info.get("os_version");
  ASSERT_TRUE(osVersion.asString() && !osVersion.asString()->empty());
  const ValueMap expected{{"platform", "ios"}, {"device", names.machine}, {"device_locale", "en"},
                          {"device_timezone", "UTC"}, {"os_version", osVersion},
                          {"app_id", "com.example.zephlo.broadcast"}, {"app_name", "Zephlo Broadcast"},
                          {"app_version", "2.6.0"}, {"app_build", "1"},
                          {"app_build_configuration", "release"}, {"sdk_version", "2.6.0-alpha.1"},
                          {"broadcast_extension_id", "com.example.zephlo.broadcast"}};
  EXPECT_EQ(info, expected);
  EXPECT_TRUE(cet == Value("CET") || cet == Value("CEST")) << cet.debugString();
}

// Under a host's bundle, which leaves out the extension's entry.
TEST_F(ZPHDeviceInfoTest, LocationEntriesOnlyWhenAuthorisedEnabledAndKnownAndAbsentBundleEntriesNull) {
  useBundle(R"({"CFBundleIdentifier": "com.example.host", "CFBundleVersion": "9"})");
  const Location here{52.37, 4.89, -2.0, 5.0, 3.0};
  const struct {
    const char* name;
    LocationAuthorization status;
    bool enabled;
    std::optional<Location> known;
    bool asked;  // a manager made, with the delegate, and asked once for the location
  } cases[] = {
      {"not determined", LocationAuthorization::kNotDetermined, true, here, false},
      {"restricted", LocationAuthorization::kRestricted, true, here, false},
      {"denied", LocationAuthorization::kDenied, true, here, false},
      {"always, services off", LocationAuthorization::kAuthorizedAlways, false, here, false},
      {"always, nothing known yet", LocationAuthorization::kAuthorizedAlways, true, std::nullopt, true},
      {"when in use, known", LocationAuthorization::kAuthorizedWhenInUse, true, here, true},
      {"always, known", LocationAuthorization::kAuthorizedAlways, true, here, true},
  };
  std::shared_ptr<FakeLocation> fake;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ZPHDeviceInfo::resetLocationManagerForTesting();
    fake = std::make_shared<FakeLocation>();
    LocationManager::setBackend(fake);
    fake->status = c.status;
    fake->enabled = c.enabled;
    fake->known = c.known;
    const auto info = ZPHDeviceInfo::info();
    EXPECT_EQ(fake->managersMade, c.asked ? 1 : 0);
    EXPECT_EQ(fake->delegateSet, c.asked);
    EXPECT_EQ(fake->requests, c.asked ? 1 : 0);
    auto expectedKeys = kFixedKeys;
    if (c.asked && c.known) {
      for (const char* k : {"latitude", "longitude", "altitude", "horizontal_accuracy", "vertical_accuracy"})
        expectedKeys.push_back(k);
      const double values[] = {52.37, 4.89, -2.0, 5.0, 3.0};
      for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(info.get(expectedKeys[11 + i]), Value(values[i])) << i;
    }
    EXPECT_EQ(keys(info), expectedKeys);
  }
  // The one manager serves later calls, asked again each time for what it now knows.
  fake->known = Location{1, 2, 3, 4, 5};
  const auto info = ZPHDeviceInfo::info();
  EXPECT_EQ(info.get("vertical_accuracy"), Value(5.0));
  EXPECT_EQ(fake->managersMade, 1);
  EXPECT_EQ(fake->requests, 2);
  for (const char* key : {"app_name", "app_version", "device_locale"}) EXPECT_TRUE(info.get(key).isNull()) << key;
  EXPECT_EQ(info.get("app_id"), Value("com.example.host"));
  EXPECT_EQ(info.get("app_build"), Value("9"));
}

}  // namespace
}  // namespace zephlo
