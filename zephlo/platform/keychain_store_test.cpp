#include "zephlo/platform/keychain_store.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "zephlo/platform/bundle.hpp"

namespace zephlo::platform {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDefaultGroup = "ABCDE12345.com.example.zephlo.broadcast";
constexpr const char* kSharedGroup = "ABCDE12345.zephlo";

KeychainQuery item(std::string key, std::optional<std::string> group = std::nullopt) {
  KeychainQuery query;
  query.itemClass = KeychainItemClass::GenericPassword;
  query.account = key;
  query.service = key;
  query.accessGroup = std::move(group);
  return query;
}

KeychainQuery withData(KeychainQuery query, std::string_view value) {
  query.valueData = Bytes(value.begin(), value.end());
  return query;
}

class KeychainStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Bundle::setMain(Bundle::demo());
    char pattern[] = "/tmp/keychain_store_test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    path_ = (dir_ / "keychain.db").string();
    store_ = KeychainStore::open(path_);
    ASSERT_TRUE(store_->isOpen()) << store_->openError();
  }
  void TearDown() override {
    store_.reset();
    Bundle::setMain(Bundle::demo());
    fs::remove_all(dir_);
  }

  std::optional<std::string> valueOf(KeychainStore& store, KeychainQuery query) {
    query.returnData = true;
    KeychainItem result;
    if (store.copyMatching(query, &result) != kKeychainSuccess || !result.valueData) return std::nullopt;
    return std::string(result.valueData->begin(), result.valueData->end());
  }

  fs::path dir_;
  std::string path_;
  std::shared_ptr<KeychainStore> store_;
};

TEST_F(KeychainStoreTest, AddAssignsTheDefaultGroupAndReturnsIt) {
  KeychainQuery probe = withData(item("k"), "v");
  probe.returnAttributes = true;
  KeychainItem added;
  ASSERT_EQ(store_->add(probe, &added), kKeychainSuccess);
  EXPECT_EQ(added.accessGroup, kDefaultGroup);
  EXPECT_EQ(added.account, "k");
  EXPECT_FALSE(added.valueData.has_value());

  EXPECT_EQ(valueOf(*store_, item("k", kDefaultGroup)), "v");
  EXPECT_EQ(valueOf(*store_, item("k", kSharedGroup)), std::nullopt);
  EXPECT_EQ(store_->add(withData(item("k", kDefaultGroup), "again"), nullptr), kKeychainDuplicateItem);
  // The same key in another group is another item.
  EXPECT_EQ(store_->add(withData(item("k", kSharedGroup), "shared"), nullptr), kKeychainSuccess);
  EXPECT_EQ(valueOf(*store_, item("k", kSharedGroup)), "shared");
}

TEST_F(KeychainStoreTest, StatusCodes) {
  ASSERT_EQ(store_->add(withData(item("present", kSharedGroup), "v"), nullptr), kKeychainSuccess);
  KeychainQuery classless = item("present");
  classless.itemClass.reset();
  struct StatusCase {
    const char* name;
    KeychainOperation operation;
    KeychainQuery query;
    KeychainStatus expected;
  };
  const StatusCase cases[] = {
      {"copy of a missing item", KeychainOperation::CopyMatching, item("absent"), kKeychainItemNotFound},
      {"delete of a missing item", KeychainOperation::Delete, item("absent"), kKeychainItemNotFound},
      {"copy from a foreign group", KeychainOperation::CopyMatching, item("present", "OTHER.zephlo"),
       kKeychainMissingEntitlement},
      {"add to a foreign group", KeychainOperation::Add, withData(item("n", "OTHER.zephlo"), "v"),
       kKeychainMissingEntitlement},
      {"delete in a foreign group", KeychainOperation::Delete, item("present", "OTHER.zephlo"),
       kKeychainMissingEntitlement},
      {"copy without a class", KeychainOperation::CopyMatching, classless, kKeychainParam},
      {"copy of a synchronised item only", KeychainOperation::CopyMatching,
       [] {
         auto q = item("present");
         q.synchronizable = true;
         return q;
       }(),
       kKeychainItemNotFound},
      {"copy with another accessibility", KeychainOperation::CopyMatching,
       [] {
         auto q = item("present");
         q.accessible = KeychainAccessible::AlwaysThisDeviceOnly;
         return q;
       }(),
       kKeychainItemNotFound},
      {"copy across every group", KeychainOperation::CopyMatching, item("present"), kKeychainSuccess},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    KeychainItem result;
    KeychainStatus status = c.operation == KeychainOperation::CopyMatching ? store_->copyMatching(c.query, &result)
                            : c.operation == KeychainOperation::Add        ? store_->add(c.query, &result)
                                                                           : store_->deleteItems(c.query);
    EXPECT_EQ(status, c.expected);
  }
  EXPECT_EQ(valueOf(*store_, item("present")), "v");
}

TEST_F(KeychainStoreTest, CopyReturnsWhatWasAskedForPreferringTheDefaultGroup) {
  ASSERT_EQ(store_->add(withData(item("k", kSharedGroup), "shared"), nullptr), kKeychainSuccess);
  ASSERT_EQ(store_->add(withData(item("k", kDefaultGroup), "private"), nullptr), kKeychainSuccess);

  KeychainQuery both = item("k");
  both.returnAttributes = true;
  both.returnData = true;
  KeychainItem result;
  ASSERT_EQ(store_->copyMatching(both, &result), kKeychainSuccess);
  EXPECT_EQ(result.accessGroup, kDefaultGroup);
  EXPECT_EQ(result.accessible, KeychainAccessible::WhenUnlocked);
  EXPECT_EQ(result.synchronizable, false);
  EXPECT_EQ(result.valueData, (Bytes{'p', 'r', 'i', 'v', 'a', 't', 'e'}));

  KeychainQuery attributesOnly = item("k", kSharedGroup);
  attributesOnly.returnAttributes = true;
  ASSERT_EQ(store_->copyMatching(attributesOnly, &result), kKeychainSuccess);
  EXPECT_EQ(result.accessGroup, kSharedGroup);
  EXPECT_FALSE(result.valueData.has_value());

  KeychainQuery dataOnly = item("k", kSharedGroup);
  dataOnly.returnData = true;
  ASSERT_EQ(store_->copyMatching(dataOnly, &result), kKeychainSuccess);
  EXPECT_FALSE(result.accessGroup.has_value());
  EXPECT_EQ(result.valueData, (Bytes{'s', 'h', 'a', 'r', 'e', 'd'}));

  // An item added without data has none to give, and an empty value is a value.
  ASSERT_EQ(store_->add(item("nodata"), nullptr), kKeychainSuccess);
  ASSERT_EQ(store_->add(withData(item("empty"), ""), nullptr), kKeychainSuccess);
  KeychainQuery noData = item("nodata");
  noData.returnAttributes = true;
  noData.returnData = true;
  ASSERT_EQ(store_->copyMatching(noData, &result), kKeychainSuccess);
  EXPECT_EQ(result.account, "nodata");
  EXPECT_FALSE(result.valueData.has_value());
  EXPECT_EQ(valueOf(*store_, item("empty")), "");
}

TEST_F(KeychainStoreTest, DeleteRemovesEveryMatchingItem) {
  ASSERT_EQ(store_->add(withData(item("k", kSharedGroup), "1"), nullptr), kKeychainSuccess);
  ASSERT_EQ(store_->add(withData(item("k", kDefaultGroup), "2"), nullptr), kKeychainSuccess);
  ASSERT_EQ(store_->add(withData(item("other", kDefaultGroup), "3"), nullptr), kKeychainSuccess);
  EXPECT_EQ(store_->deleteItems(item("k")), kKeychainSuccess);
  EXPECT_EQ(store_->copyMatching(item("k"), nullptr), kKeychainItemNotFound);
  EXPECT_EQ(valueOf(*store_, item("other")), "3");
}

TEST_F(KeychainStoreTest, FileAndFolderAreOwnerOnly) {
  mode_t previous = ::umask(0);  // the modes must not depend on the umask
  fs::path nested = dir_ / "data" / "zephlo" / "keychain.db";
  auto store = KeychainStore::open(nested.string());
  ::umask(previous);
  ASSERT_TRUE(store->isOpen()) << store->openError();
  ASSERT_EQ(store->add(withData(item("k"), "v"), nullptr), kKeychainSuccess);

  struct stat info {};
  ASSERT_EQ(::stat(nested.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  ASSERT_EQ(::stat(nested.parent_path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0700u);
  // A rollback journal leaves nothing beside the database once a write is done.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(nested.parent_path())) names.push_back(entry.path().filename());
  EXPECT_EQ(names, std::vector<std::string>{"keychain.db"});
}

TEST_F(KeychainStoreTest, ItemsSurviveReopeningAndReadOnlyStoresRefuseWrites) {
  ASSERT_EQ(store_->add(withData(item("k"), "v"), nullptr), kKeychainSuccess);
  store_.reset();
  auto reopened = KeychainStore::open(path_);
  EXPECT_EQ(valueOf(*reopened, item("k")), "v");

  auto readOnly = KeychainStore::open(path_, KeychainOpenMode::ReadOnly);
  ASSERT_TRUE(readOnly->isOpen()) << readOnly->openError();
  EXPECT_TRUE(readOnly->isReadOnly());
  EXPECT_EQ(valueOf(*readOnly, item("k")), "v");
  EXPECT_EQ(readOnly->deleteItems(item("k")), kKeychainWritePermission);
  EXPECT_EQ(readOnly->add(withData(item("n"), "v"), nullptr), kKeychainWritePermission);
  EXPECT_EQ(valueOf(*reopened, item("k")), "v");
  EXPECT_EQ(reopened->copyMatching(item("n"), nullptr), kKeychainItemNotFound);
}

TEST_F(KeychainStoreTest, StoresThatCannotOpenAnswerNotAvailable) {
  std::ofstream(dir_ / "garbage.db") << "this is not a database, not even a little bit; " << std::string(200, 'x');
  std::ofstream(dir_ / "plain-file") << "x";
  const std::string paths[] = {
      (dir_ / "garbage.db").string(),
      (dir_ / "plain-file" / "keychain.db").string(),
      "",
  };
  for (const auto& path : paths) {
    SCOPED_TRACE(path);
    auto store = KeychainStore::open(path);
    EXPECT_FALSE(store->isOpen());
    EXPECT_FALSE(store->openError().empty());
    EXPECT_EQ(store->copyMatching(item("k"), nullptr), kKeychainNotAvailable);
    EXPECT_EQ(store->add(withData(item("k"), "v"), nullptr), kKeychainNotAvailable);
    EXPECT_EQ(store->deleteItems(item("k")), kKeychainNotAvailable);
  }
  auto missing = KeychainStore::open((dir_ / "absent.db").string(), KeychainOpenMode::ReadOnly);
  EXPECT_FALSE(missing->isOpen());
  EXPECT_FALSE(fs::exists(dir_ / "absent.db"));
}

TEST_F(KeychainStoreTest, BundleWithoutAccessGroupsIsRefused) {
  Bundle::setMain(*Bundle::fromJson(R"({"CFBundleIdentifier": "x"})", nullptr));
  EXPECT_EQ(store_->add(withData(item("k"), "v"), nullptr), kKeychainMissingEntitlement);
  EXPECT_EQ(store_->copyMatching(item("k"), nullptr), kKeychainMissingEntitlement);
}

TEST_F(KeychainStoreTest, FaultHookAnswersInsteadOfTheDatabase) {
  std::vector<KeychainOperation> seen;
  store_->setFaultHook([&](KeychainOperation operation) -> std::optional<KeychainStatus> {
    seen.push_back(operation);
    if (operation == KeychainOperation::Delete) return kKeychainIO;
    return std::nullopt;
  });
  EXPECT_EQ(store_->add(withData(item("k"), "v"), nullptr), kKeychainSuccess);
  EXPECT_EQ(store_->deleteItems(item("k")), kKeychainIO);
  EXPECT_EQ(valueOf(*store_, item("k")), "v");
  EXPECT_EQ(seen, (std::vector{KeychainOperation::Add, KeychainOperation::Delete, KeychainOperation::CopyMatching}));
  store_->setFaultHook(nullptr);
  EXPECT_EQ(store_->deleteItems(item("k")), kKeychainSuccess);
}

TEST_F(KeychainStoreTest, DefaultPathFollowsTheEnvironment) {
  using Env = std::map<std::string, std::string>;
  struct PathCase {
    Env env;
    std::string expected;
  };
  const PathCase cases[] = {
      {{{"ZEPHLO_KEYCHAIN", "/k/db"}, {"XDG_DATA_HOME", "/xdg"}, {"HOME", "/home/u"}}, "/k/db"},
      {{{"ZEPHLO_KEYCHAIN", ""}, {"XDG_DATA_HOME", "/xdg"}, {"HOME", "/home/u"}}, "/xdg/zephlo/keychain.db"},
      {{{"XDG_DATA_HOME", "relative"}, {"HOME", "/home/u"}}, "/home/u/.local/share/zephlo/keychain.db"},
      {{{"XDG_DATA_HOME", ""}, {"HOME", "/home/u"}}, "/home/u/.local/share/zephlo/keychain.db"},
      {{{"HOME", "/root"}}, "/root/.local/share/zephlo/keychain.db"},
  };
  for (const auto& c : cases) {
    auto path = KeychainStore::defaultPath([&](std::string_view name) -> std::optional<std::string> {
      auto it = c.env.find(std::string(name));
      if (it == c.env.end()) return std::nullopt;
      return it->second;
    });
    EXPECT_EQ(path, c.expected);
  }
}

TEST_F(KeychainStoreTest, SharedStoreIsTheOneTheHostSet) {
  KeychainStore::setShared(store_);
  EXPECT_EQ(KeychainStore::shared(), store_);
  KeychainStore::setShared(nullptr);
  ::setenv("ZEPHLO_KEYCHAIN", (dir_ / "env" / "keychain.db").c_str(), 1);
  auto fromEnvironment = KeychainStore::shared();
  ::unsetenv("ZEPHLO_KEYCHAIN");
  EXPECT_EQ(fromEnvironment->path(), (dir_ / "env" / "keychain.db").string());
  EXPECT_TRUE(fromEnvironment->isOpen());
  KeychainStore::setShared(nullptr);
}

// Another process writes while this one reads: the reader waits for each of the
// writer's transactions instead of failing, and sees every committed item.
TEST_F(KeychainStoreTest, ReadsWhileAnotherProcessWrites) {
  ASSERT_EQ(store_->add(withData(item("stable"), "v"), nullptr), kKeychainSuccess);
  constexpr int kWrites = 150;
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    auto writer = KeychainStore::open(path_);
    int failures = 0;
    for (int i = 0; i < kWrites; ++i) {
      auto key = "item" + std::to_string(i);
      failures += writer->add(withData(item(key), key), nullptr) != kKeychainSuccess;
      failures += writer->deleteItems(item("stable")) != kKeychainSuccess;
      failures += writer->add(withData(item("stable"), "v"), nullptr) != kKeychainSuccess;
    }
    ::_exit(failures == 0 ? 0 : 1);
  }
  std::vector<KeychainStatus> readFailures;
  int status = 0;
  while (::waitpid(child, &status, WNOHANG) == 0) {
    KeychainStatus read = store_->copyMatching(item("stable"), nullptr);
    if (read != kKeychainSuccess && read != kKeychainItemNotFound) readFailures.push_back(read);
  }
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(readFailures, std::vector<KeychainStatus>{});
  for (int i = 0; i < kWrites; ++i) {
    auto key = "item" + std::to_string(i);
    EXPECT_EQ(valueOf(*store_, item(key)), key);
  }
}

}  // namespace
}  // namespace zephlo::platform
