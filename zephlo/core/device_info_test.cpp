#include "zephlo/core/device_info.hpp"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstdlib>
#include <memory>

#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/device_facts.hpp"

namespace zephlo {
namespace {

using platform::Location;
using platform::LocationAuthorization;
using platform::LocationManager;

// Location services as a test sets them; counts what the device info asks of them.
struct FakeLocation {
  LocationAuthorization status = LocationAuthorization::kNotDetermined;
  bool enabled = false;
  std::optional<Location> known;
  int managersMade = 0;
  int requests = 0;
  bool delegateSet = false;
};

class FakeManager final : public LocationManager {
 public:
  explicit FakeManager(std::shared_ptr<FakeLocation> state) : state_(std::move(state)) {}
  void setDelegate(platform::LocationManagerDelegate* delegate) override { state_->delegateSet = delegate != nullptr; }
  void requestLocation() override { ++state_->requests; }
  std::optional<Location> location() const override { return state_->known; }

 private:
  std::shared_ptr<FakeLocation> state_;
};

class FakeBackend final : public LocationManager::Backend {
 public:
  explicit FakeBackend(std::shared_ptr<FakeLocation> state) : state_(std::move(state)) {}
  LocationAuthorization authorizationStatus() const override { return state_->status; }
  bool locationServicesEnabled() const override { return state_->enabled; }
  std::unique_ptr<LocationManager> makeManager() override {
    ++state_->managersMade;
    return std::make_unique<FakeManager>(state_);
  }

 private:
  std::shared_ptr<FakeLocation> state_;
};

class ZPHDeviceInfoTest : public ::testing::Test {
 protected:
  void SetUp() override { ZPHDeviceInfo::resetLocationManagerForTesting(); }
  void TearDown() override {
    ZPHDeviceInfo::resetLocationManagerForTesting();
    LocationManager::setBackend(nullptr);
    platform::Bundle::setMain(platform::Bundle::demo());
  }

  std::shared_ptr<FakeLocation> fakeLocation() {
    auto state = std::make_shared<FakeLocation>();
    LocationManager::setBackend(std::make_shared<FakeBackend>(state));
    return state;
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

TEST_F(ZPHDeviceInfoTest, DescribesTheDeviceAndTheBundleInOrder) {
  const auto facts = platform::DeviceFacts::current();
  const auto info = ZPHDeviceInfo::info();

  auto expectedKeys = kFixedKeys;
  expectedKeys.push_back("broadcast_extension_id");
  EXPECT_EQ(keys(info), expectedKeys);

  utsname names{};
  ASSERT_EQ(uname(&names), 0);
  const ValueMap expected{{"platform", "ios"}, {"device", names.machine}, {"device_locale", "en"},
                          {"device_timezone", NotNil(facts.timeZoneAbbreviation)},
                          {"os_version", NotNil(facts.systemVersion)}, {"app_id", "com.example.zephlo.broadcast"},
                          {"app_name", "Zephlo Broadcast"}, {"app_version", "2.6.0"}, {"app_build", "1"},
                          {"app_build_configuration", "release"}, {"sdk_version", "2.6.0-alpha.1"},
                          {"broadcast_extension_id", "com.example.zephlo.broadcast"}};
  EXPECT_EQ(info, expected);
  EXPECT_EQ(ZPHDeviceInfo::broadcastExtension(), "com.example.zephlo.broadcast");
}

TEST_F(ZPHDeviceInfoTest, AbsentBundleEntriesAreNullAndTheExtensionIsLeftOut) {
  useBundle(R"({"CFBundleIdentifier": "com.example.host", "CFBundleVersion": "9"})");
  const auto info = ZPHDeviceInfo::info();
  EXPECT_EQ(keys(info), kFixedKeys);  // exactly eleven
  for (const char* key : {"app_name", "app_version", "device_locale"}) EXPECT_TRUE(info.get(key).isNull()) << key;
  EXPECT_EQ(info.get("app_id"), Value("com.example.host"));
  EXPECT_EQ(info.get("app_build"), Value("9"));
  EXPECT_FALSE(ZPHDeviceInfo::broadcastExtension());
}

TEST_F(ZPHDeviceInfoTest, LocationEntriesOnlyWhenAuthorisedEnabledAndKnown) {
  useBundle(R"({"CFBundleIdentifier": "com.example.host"})");
  const Location here{52.37, 4.89, -2.0, 5.0, 3.0};
  struct Case {
    const char* name;
    LocationAuthorization status;
    bool enabled;
    std::optional<Location> known;
    int managersMade;
    int requests;
    std::size_t entries;
  };
  const Case cases[] = {
      {"not determined", LocationAuthorization::kNotDetermined, true, here, 0, 0, 11},
      {"restricted", LocationAuthorization::kRestricted, true, here, 0, 0, 11},
      {"denied", LocationAuthorization::kDenied, true, here, 0, 0, 11},
      {"always, services off", LocationAuthorization::kAuthorizedAlways, false, here, 0, 0, 11},
      {"always, nothing known yet", LocationAuthorization::kAuthorizedAlways, true, std::nullopt, 1, 1, 11},
      {"when in use, known", LocationAuthorization::kAuthorizedWhenInUse, true, here, 1, 1, 16},
      {"always, known", LocationAuthorization::kAuthorizedAlways, true, here, 1, 1, 16},
  };
  std::shared_ptr<FakeLocation> fake;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ZPHDeviceInfo::resetLocationManagerForTesting();
    fake = fakeLocation();
    fake->status = c.status;
    fake->enabled = c.enabled;
    fake->known = c.known;
    const auto info = ZPHDeviceInfo::info();
    EXPECT_EQ(fake->managersMade, c.managersMade);
    EXPECT_EQ(fake->delegateSet, c.managersMade > 0);
    EXPECT_EQ(fake->requests, c.requests);
    ASSERT_EQ(info.size(), c.entries);
    if (c.entries == 16) {
      auto expectedKeys = kFixedKeys;
      for (const char* k : {"latitude", "longitude", "altitude", "horizontal_accuracy", "vertical_accuracy"})
        expectedKeys.push_back(k);
      EXPECT_EQ(keys(info), expectedKeys);
      const double values[] = {52.37, 4.89, -2.0, 5.0, 3.0};
      for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(info.get(expectedKeys[11 + i]), Value(values[i])) << i;
    }
  }
  // The one manager serves later calls, asked again each time for what it now knows.
  fake->known = Location{1, 2, 3, 4, 5};
  EXPECT_EQ(ZPHDeviceInfo::info().get("vertical_accuracy"), Value(5.0));
  EXPECT_EQ(fake->managersMade, 1);
  EXPECT_EQ(fake->requests, 2);
}

TEST(DeviceFactsTest, ReadsThisMachine) {
  const char* saved = std::getenv("TZ");
  const std::string savedTz = saved ? saved : "";
  setenv("TZ", "UTC0", 1);
  const auto utc = platform::DeviceFacts::current();
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  const auto cet = platform::DeviceFacts::current();
  saved ? setenv("TZ", savedTz.c_str(), 1) : unsetenv("TZ");

  EXPECT_EQ(utc.timeZoneAbbreviation, "UTC");
  ASSERT_TRUE(cet.timeZoneAbbreviation);
  EXPECT_TRUE(*cet.timeZoneAbbreviation == "CET" || *cet.timeZoneAbbreviation == "CEST");
  ASSERT_TRUE(utc.systemVersion);
  EXPECT_FALSE(utc.systemVersion->empty());
}

}  // namespace
}  // namespace zephlo
