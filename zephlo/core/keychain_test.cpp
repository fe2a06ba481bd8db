#include "zephlo/core/keychain.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>

#include "zephlo/platform/bundle.hpp"
#include "zephlo/testing/log_capture.hpp"

namespace zephlo {
namespace {

namespace fs = std::filesystem;
using platform::Bundle;
using platform::KeychainItem;
using platform::KeychainOperation;
using platform::KeychainQuery;
using platform::KeychainStatus;
using platform::KeychainStore;

constexpr const char* kTeam = "ABCDE12345";
constexpr const char* kShared = "ABCDE12345.zephlo";
constexpr const char* kPrivate = "ABCDE12345.com.example.zephlo.broadcast";

KeychainQuery probe() {
  KeychainQuery query;
  query.itemClass = platform::KeychainItemClass::GenericPassword;
  query.account = "zphBundleTest";
  query.service = "zphBundleTest";
  return query;
}

class ZPHKeychainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Bundle::setMain(Bundle::demo());
    char pattern[] = "/tmp/keychain_test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    path_ = (dir_ / "keychain.db").string();
    store_ = KeychainStore::open(path_);
    ASSERT_TRUE(store_->isOpen()) << store_->openError();
    KeychainStore::setShared(store_);
  }
  void TearDown() override {
    KeychainStore::setShared(nullptr);
    Bundle::setMain(Bundle::demo());
    fs::remove_all(dir_);
  }

  // Fails the chosen operation with `status`; records every operation.
  void failWith(KeychainOperation failing, KeychainStatus status) {
    store_->setFaultHook([this, failing, status](KeychainOperation operation) -> std::optional<KeychainStatus> {
      operations_.push_back(operation);
      if (operation == failing) return status;
      return std::nullopt;
    });
  }
  void recordOperations() { failWith(static_cast<KeychainOperation>(-1), 0); }
  static void useBundle(const std::string& id, const std::string& groups) {
    const auto bundle = Bundle::fromJson(
        R"({"CFBundleIdentifier": ")" + id + R"(", "keychain-access-groups": [)" + groups + "]}", nullptr);
    ASSERT_TRUE(bundle);
    Bundle::setMain(*bundle);
  }

  fs::path dir_;
  std::string path_;
  std::shared_ptr<KeychainStore> store_;
  std::vector<KeychainOperation> operations_;
  testing::LogCapture log_;
};

TEST_F(ZPHKeychainTest, TeamIdComesFromAProbeThatIsNeverLeftBehind) {
  EXPECT_EQ(ZPHKeychain::teamId(), kTeam);
  EXPECT_EQ(ZPHKeychain::sharedGroup(), kShared);
  EXPECT_EQ(ZPHKeychain::privateGroup(), kPrivate);
  EXPECT_EQ(kZPHDeviceIdKey(), "com.example.zephlo.broadcast.zephlo.device");
  EXPECT_EQ(store_->copyMatching(probe(), nullptr), platform::kKeychainItemNotFound);
  EXPECT_TRUE(log_.lines().empty());

  // A leftover probe sits in a group of another prefix than the default one, so
  // the answer tells whether it was found or a fresh probe was added.
  useBundle("com.example.app", R"("TEAM1.com.example.app", "OTHER9.zephlo")");
  KeychainQuery leftover = probe();
  leftover.accessGroup = "OTHER9.zephlo";
  leftover.accessible = platform::KeychainAccessible::AlwaysThisDeviceOnly;
  ASSERT_EQ(store_->add(leftover, nullptr), platform::kKeychainSuccess);
  EXPECT_EQ(ZPHKeychain::teamId(), "OTHER9");
  EXPECT_EQ(store_->copyMatching(probe(), nullptr), platform::kKeychainItemNotFound);
  EXPECT_EQ(ZPHKeychain::teamId(), "TEAM1");
}

TEST_F(ZPHKeychainTest, FailedProbeGivesNullTeamFormattedAsNullObject) {
  failWith(KeychainOperation::CopyMatching, platform::kKeychainIO);
  EXPECT_EQ(ZPHKeychain::teamId(), std::nullopt);
  EXPECT_EQ(ZPHKeychain::sharedGroup(), "(null).zephlo");
  EXPECT_EQ(ZPHKeychain::privateGroup(), "(null).com.example.zephlo.broadcast");
  EXPECT_EQ(log_.lines(), std::vector<std::string>(3, "Failed to determine team ID -36"));

  log_.clear();
  failWith(KeychainOperation::Add, platform::kKeychainMissingEntitlement);
  EXPECT_EQ(ZPHKeychain::teamId(), std::nullopt);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"Failed to determine team ID -34018"});
}

TEST_F(ZPHKeychainTest, SetReplacesClearRemovesAndANullGroupIsTheDefaultOne) {
  recordOperations();
  EXPECT_EQ(ZPHKeychain::setValue("https://api.example.com", kZPHApiKey, kShared), platform::kKeychainSuccess);
  EXPECT_EQ(operations_, (std::vector{KeychainOperation::Delete, KeychainOperation::Add}));
  EXPECT_EQ(ZPHKeychain::getValue(kZPHApiKey, kShared), "https://api.example.com");

  // Found where the host application looks: account and service both the key.
  KeychainQuery written = probe();
  written.account = written.service = "zephlo.api";
  written.accessGroup = kShared;
  written.returnAttributes = true;
  KeychainItem attributes;
  ASSERT_EQ(store_->copyMatching(written, &attributes), platform::kKeychainSuccess);
  EXPECT_EQ(attributes.accessible, platform::KeychainAccessible::AlwaysThisDeviceOnly);
  EXPECT_EQ(attributes.synchronizable, false);

  // Clearing hands back the delete's status unexamined.
  EXPECT_EQ(ZPHKeychain::clearKey(kZPHApiKey, kShared), platform::kKeychainSuccess);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHApiKey, kShared), std::nullopt);
  EXPECT_EQ(ZPHKeychain::clearKey(kZPHApiKey, kShared), platform::kKeychainItemNotFound);
  EXPECT_EQ(ZPHKeychain::clearKey(kZPHApiKey, "OTHER.zephlo"), platform::kKeychainMissingEntitlement);

  ASSERT_EQ(ZPHKeychain::setValue("device-1", kZPHDeviceIdKey(), std::nullopt), platform::kKeychainSuccess);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), kPrivate), "device-1");
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), kShared), std::nullopt);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), std::nullopt), "device-1");
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ZPHKeychainTest, FailuresAreReturnedOrLoggedAndWriteNothing) {
  ASSERT_EQ(ZPHKeychain::setValue("old", kZPHSessionStorageKey, kShared), platform::kKeychainSuccess);
  failWith(KeychainOperation::Delete, platform::kKeychainIO);
  EXPECT_EQ(ZPHKeychain::setValue("new", kZPHSessionStorageKey, kShared), platform::kKeychainIO);
  EXPECT_EQ(ZPHKeychain::setValue("new", "fresh.key", kShared), platform::kKeychainIO);
  EXPECT_EQ(operations_, (std::vector{KeychainOperation::Delete, KeychainOperation::Delete}));
  store_->setFaultHook(nullptr);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHSessionStorageKey, kShared), "old");
  EXPECT_TRUE(log_.lines().empty());

  KeychainQuery noData = ZPHKeychain::queryForKey("nodata", kShared);
  ASSERT_EQ(store_->add(noData, nullptr), platform::kKeychainSuccess);
  KeychainQuery badText = ZPHKeychain::queryForKey("badtext", kShared);
  badText.valueData = Bytes{'a', 0xc3, 0x28};
  ASSERT_EQ(store_->add(badText, nullptr), platform::kKeychainSuccess);
  // An absent item is normal and says nothing; "io" is read while the store fails.
  const std::pair<const char*, std::vector<std::string>> cases[] = {{"missing", {}},
      {"nodata", {"Keychain item was missing data"}}, {"badtext", {}}, {"io", {"Failed to get keychain value -36"}}};
  for (const auto& [key, log] : cases) {
    log_.clear();
    if (key == std::string_view("io")) failWith(KeychainOperation::CopyMatching, platform::kKeychainIO);
    EXPECT_EQ(ZPHKeychain::getValue(key, kShared), std::nullopt) << key;
    EXPECT_EQ(log_.lines(), log) << key;
  }

  log_.clear();
  store_->setFaultHook(nullptr);
  EXPECT_EQ(ZPHKeychain::setValue("v", "k", "OTHER.zephlo"), platform::kKeychainMissingEntitlement);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"Missing entitlement for keychain group OTHER.zephlo"});

  // Entitled to the shared group only: the private group is out of reach.
  log_.clear();
  useBundle("com.example.zephlo.broadcast", R"("ABCDE12345.zephlo")");
  ASSERT_EQ(ZPHKeychain::privateGroup(), kPrivate);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), kPrivate), std::nullopt);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"Missing entitlement for keychain group ABCDE12345.zephlo"});
}

// The host rewrites the session while the extension starts in another process:
// the reader never falls into a gap between the old item and the new, and two
// team probes at once never trip over each other's probe item.
TEST_F(ZPHKeychainTest, AnotherProcessWritingLeavesNoGapAndProbesDoNotCollide) {
  ASSERT_EQ(ZPHKeychain::setValue("s-0", kZPHSessionStorageKey, kShared), platform::kKeychainSuccess);
  constexpr int kRounds = 200;
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    KeychainStore::setShared(KeychainStore::open(path_));
    int failures = 0;
    for (int i = 1; i <= kRounds; ++i) {
      failures += ZPHKeychain::setValue("s-" + std::to_string(i), kZPHSessionStorageKey, kShared) != 0;
      failures += !ZPHKeychain::teamId().has_value();
    }
    ::_exit(failures == 0 ? 0 : 1);
  }
  int missingSessions = 0, missingTeams = 0, status = 0;
  while (::waitpid(child, &status, WNOHANG) == 0) {
    missingSessions += !ZPHKeychain::getValue(kZPHSessionStorageKey, kShared).has_value();
    missingTeams += !ZPHKeychain::teamId().has_value();
  }
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(missingSessions, 0);
  EXPECT_EQ(missingTeams, 0);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHSessionStorageKey, kShared), "s-" + std::to_string(kRounds));
  EXPECT_EQ(store_->copyMatching(probe(), nullptr), platform::kKeychainItemNotFound);
}

#ifdef ZEPHLO_KEYCHAIN_TOOL
// Runs zephlo-keychain on this test's keychain; returns its exit status.
int runTool(const std::string& arguments) {
  const int status = std::system((std::string(ZEPHLO_KEYCHAIN_TOOL) + " " + arguments + " >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The end-to-end tests run the tool for the shared items; here the private
// group and clearing.
TEST_F(ZPHKeychainTest, ToolWritesWhatTheLibraryReadsInAnotherProcess) {
  std::string keychain = "--keychain '" + path_ + "' ";
  ASSERT_EQ(runTool(keychain + "set zephlo.device DEVICE --group private"), 0);
  EXPECT_EQ(ZPHKeychain::getValue("zephlo.device", kPrivate), "DEVICE");
  ASSERT_EQ(ZPHKeychain::setValue("s-42", kZPHSessionStorageKey, kShared), platform::kKeychainSuccess);
  EXPECT_EQ(runTool(keychain + "clear zephlo.session"), 0);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHSessionStorageKey, kShared), std::nullopt);
}
#endif

}  // namespace
}  // namespace zephlo
