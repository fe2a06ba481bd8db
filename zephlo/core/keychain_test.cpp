#include "zephlo/core/keychain.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
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

TEST_F(ZPHKeychainTest, TeamIdProbesAnEmptyKeychainAndLeavesNoProbeBehind) {
  EXPECT_EQ(ZPHKeychain::teamId(), kTeam);
  EXPECT_EQ(ZPHKeychain::sharedGroup(), kShared);
  EXPECT_EQ(ZPHKeychain::privateGroup(), kPrivate);
  EXPECT_EQ(kZPHDeviceIdKey(), "com.example.zephlo.broadcast.zephlo.device");
  EXPECT_EQ(store_->copyMatching(probe(), nullptr), platform::kKeychainItemNotFound);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ZPHKeychainTest, LeftoverProbeIsFoundAndDeleted) {
  // The leftover sits in a group of another prefix than the default one, so the
  // answer tells whether it was found or a fresh probe was added.
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

TEST_F(ZPHKeychainTest, QueryForKeyIsTheBaseOfEveryOperation) {
  KeychainQuery expected;
  expected.itemClass = platform::KeychainItemClass::GenericPassword;
  expected.account = "zephlo.api";
  expected.service = "zephlo.api";
  expected.useDataProtectionKeychain = true;
  // A null group adds no access-group attribute at all.
  EXPECT_EQ(ZPHKeychain::queryForKey(kZPHApiKey, std::nullopt), expected);
  expected.accessGroup = kShared;
  EXPECT_EQ(ZPHKeychain::queryForKey(kZPHApiKey, kShared), expected);
}

TEST_F(ZPHKeychainTest, SetOnANewKeyAddsAfterNotFound) {
  recordOperations();
  EXPECT_EQ(ZPHKeychain::setValue("https://api.example.com", kZPHApiKey, kShared), platform::kKeychainSuccess);
  EXPECT_EQ(operations_, (std::vector{KeychainOperation::Delete, KeychainOperation::Add}));
  EXPECT_EQ(ZPHKeychain::getValue(kZPHApiKey, kShared), "https://api.example.com");

  // Setting again replaces the value.
  EXPECT_EQ(ZPHKeychain::setValue("https://other.example.com", kZPHApiKey, kShared), platform::kKeychainSuccess);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHApiKey, kShared), "https://other.example.com");

  KeychainQuery written = ZPHKeychain::queryForKey(kZPHApiKey, kShared);
  written.returnAttributes = true;
  KeychainItem attributes;
  ASSERT_EQ(store_->copyMatching(written, &attributes), platform::kKeychainSuccess);
  EXPECT_EQ(attributes.accessible, platform::KeychainAccessible::AlwaysThisDeviceOnly);
  EXPECT_EQ(attributes.synchronizable, false);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ZPHKeychainTest, FailedDeleteIsReturnedAndNothingIsWritten) {
  ASSERT_EQ(ZPHKeychain::setValue("old", kZPHSessionStorageKey, kShared), platform::kKeychainSuccess);
  failWith(KeychainOperation::Delete, platform::kKeychainIO);
  EXPECT_EQ(ZPHKeychain::setValue("new", kZPHSessionStorageKey, kShared), platform::kKeychainIO);
  EXPECT_EQ(ZPHKeychain::setValue("new", "fresh.key", kShared), platform::kKeychainIO);
  EXPECT_EQ(operations_, (std::vector{KeychainOperation::Delete, KeychainOperation::Delete}));
  store_->setFaultHook(nullptr);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHSessionStorageKey, kShared), "old");
  EXPECT_EQ(ZPHKeychain::getValue("fresh.key", kShared), std::nullopt);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ZPHKeychainTest, NullGroupLandsInTheDefaultGroup) {
  ASSERT_EQ(ZPHKeychain::setValue("device-1", kZPHDeviceIdKey(), std::nullopt), platform::kKeychainSuccess);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), kPrivate), "device-1");
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), kShared), std::nullopt);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), std::nullopt), "device-1");
}

TEST_F(ZPHKeychainTest, GetValueFailures) {
  KeychainQuery noData = ZPHKeychain::queryForKey("nodata", kShared);
  ASSERT_EQ(store_->add(noData, nullptr), platform::kKeychainSuccess);
  KeychainQuery badText = ZPHKeychain::queryForKey("badtext", kShared);
  badText.valueData = Bytes{'a', 0xc3, 0x28};
  ASSERT_EQ(store_->add(badText, nullptr), platform::kKeychainSuccess);

  // An absent item is normal and says nothing.
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"missing", {}}, {"nodata", {"Keychain item was missing data"}}, {"badtext", {}}};
  for (const auto& [key, log] : cases) {
    log_.clear();
    EXPECT_EQ(ZPHKeychain::getValue(key, kShared), std::nullopt) << key;
    EXPECT_EQ(log_.lines(), log) << key;
  }

  log_.clear();
  failWith(KeychainOperation::CopyMatching, platform::kKeychainIO);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHApiKey, kShared), std::nullopt);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"Failed to get keychain value -36"});
}

TEST_F(ZPHKeychainTest, MissingEntitlementIsLoggedWithTheSharedGroupOnLookup) {
  EXPECT_EQ(ZPHKeychain::setValue("v", "k", "OTHER.zephlo"), platform::kKeychainMissingEntitlement);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"Missing entitlement for keychain group OTHER.zephlo"});

  // Entitled to the shared group only: the private group is out of reach.
  log_.clear();
  useBundle("com.example.zephlo.broadcast", R"("ABCDE12345.zephlo")");
  ASSERT_EQ(ZPHKeychain::privateGroup(), kPrivate);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHDeviceIdKey(), kPrivate), std::nullopt);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"Missing entitlement for keychain group ABCDE12345.zephlo"});
}

TEST_F(ZPHKeychainTest, ClearKeyReturnsTheDeleteStatusUnexamined) {
  ASSERT_EQ(ZPHKeychain::setValue("s-1", kZPHSessionStorageKey, kShared), platform::kKeychainSuccess);
  EXPECT_EQ(ZPHKeychain::clearKey(kZPHSessionStorageKey, kShared), platform::kKeychainSuccess);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHSessionStorageKey, kShared), std::nullopt);
  EXPECT_EQ(ZPHKeychain::clearKey(kZPHSessionStorageKey, kShared), platform::kKeychainItemNotFound);
  EXPECT_EQ(ZPHKeychain::clearKey(kZPHSessionStorageKey, "OTHER.zephlo"), platform::kKeychainMissingEntitlement);
  EXPECT_TRUE(log_.lines().empty());
}

#ifdef ZEPHLO_KEYCHAIN_TOOL
struct ToolResult {
  int exitCode;
  std::string output;
};

ToolResult runTool(const std::string& arguments) {
  std::string command = std::string(ZEPHLO_KEYCHAIN_TOOL) + " " + arguments + " 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return {-1, ""};
  std::string output;
  char buffer[256];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
  int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

TEST_F(ZPHKeychainTest, ToolWritesWhatTheLibraryReadsInAnotherProcess) {
  std::string keychain = "--keychain '" + path_ + "' ";
  ASSERT_EQ(runTool(keychain + "set zephlo.device DEVICE --group private").exitCode, 0);
  EXPECT_EQ(ZPHKeychain::getValue("zephlo.device", kPrivate), "DEVICE");

  ASSERT_EQ(ZPHKeychain::setValue("from the library", "note", kShared), platform::kKeychainSuccess);
  ToolResult read = runTool(keychain + "get note");
  EXPECT_EQ(read.exitCode, 0);
  EXPECT_EQ(read.output, "from the library\n");
  EXPECT_EQ(runTool(keychain + "get note --group " + kPrivate).exitCode, 1);

  ASSERT_EQ(ZPHKeychain::setValue("s-42", kZPHSessionStorageKey, kShared), platform::kKeychainSuccess);
  EXPECT_EQ(runTool(keychain + "clear zephlo.session").exitCode, 0);
  EXPECT_EQ(ZPHKeychain::getValue(kZPHSessionStorageKey, kShared), std::nullopt);
  ToolResult absent = runTool(keychain + "get zephlo.session");
  EXPECT_EQ(absent.exitCode, 1);
  EXPECT_EQ(absent.output, "");
}
#endif

}  // namespace
}  // namespace zephlo
