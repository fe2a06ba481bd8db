#include "zephlo/platform/keychain_store.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
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

std::optional<std::string> text(const std::optional<Bytes>& data) {
  return data ? std::optional<std::string>(std::in_place, data->begin(), data->end()) : std::nullopt;
}

// A generic password whose account and service are both `key`.
KeychainQuery item(const std::string& key, std::optional<std::string> group = std::nullopt,
                   std::optional<std::string_view> value = std::nullopt) {
  KeychainQuery query;
  query.itemClass = KeychainItemClass::GenericPassword;
  query.account = query.service = key;
  query.accessGroup = std::move(group);
  if (value) query.valueData = Bytes(value->begin(), value->end());
  return query;
}

class KeychainStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Bundle::setMain(Bundle::demo());
    char pattern[] = "/tmp/keychain_store_test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    store_ = KeychainStore::open(path());
    ASSERT_TRUE(store_->isOpen()) << store_->openError();
  }
  void TearDown() override {
    store_.reset();
    Bundle::setMain(Bundle::demo());
    fs::remove_all(dir_);
  }

  // The data of the item `query` finds; empty when there is no item or no data.
  static std::optional<std::string> valueOf(KeychainStore& store, KeychainQuery query) {
    query.returnData = true;
    KeychainItem result;
    return store.copyMatching(query, &result) == kKeychainSuccess ? text(result.valueData) : std::nullopt;
  }

  std::string path() const { return (dir_ / "keychain.db").string(); }

  fs::path dir_;
  std::shared_ptr<KeychainStore> store_;
};

// Which group an unnamed one means, and what an added item's attributes say,
// show in the keychain's team probe.
TEST_F(KeychainStoreTest, AddCopyAndDeleteAcrossAccessGroups) {
  ASSERT_EQ(store_->add(item("k", {}, "private")), kKeychainSuccess);
  EXPECT_EQ(store_->add(item("k", kDefaultGroup, "again")), kKeychainDuplicateItem);
  // The same key in another group is another item.
  ASSERT_EQ(store_->add(item("k", kSharedGroup, "shared")), kKeychainSuccess);
  ASSERT_EQ(store_->add(item("nodata")), kKeychainSuccess);
  ASSERT_EQ(store_->add(item("empty", {}, "")), kKeychainSuccess);

  // A copy answers what was asked for, from the default group when the query names none.
  const struct {
    KeychainQuery query;
    bool attributes, data;
    std::optional<std::string> group, value;
  } copies[] = {
      {item("k"), true, true, kDefaultGroup, "private"},
      {item("k", kSharedGroup), true, false, kSharedGroup, std::nullopt},
      {item("k", kSharedGroup), false, true, std::nullopt, "shared"},
      {item("nodata"), true, true, kDefaultGroup, std::nullopt},  // added without data, it has none
      {item("empty"), false, true, std::nullopt, ""},             // an empty value is a value
  };
  for (auto c : copies) {
    SCOPED_TRACE(*c.query.account);
    c.query.returnAttributes = c.attributes;
    c.query.returnData = c.data;
    KeychainItem result;
    ASSERT_EQ(store_->copyMatching(c.query, &result), kKeychainSuccess);
    EXPECT_EQ(result.accessGroup, c.group);
    EXPECT_EQ(text(result.valueData), c.value);
    EXPECT_EQ(result.account, c.attributes ? c.query.account : std::nullopt);
    EXPECT_EQ(result.accessible, c.attributes ? std::optional(KeychainAccessible::WhenUnlocked) : std::nullopt);
    EXPECT_EQ(result.synchronizable, c.attributes ? std::optional(false) : std::nullopt);
  }

  // Delete takes the key from every group and nothing else.
  EXPECT_EQ(store_->deleteItems(item("k")), kKeychainSuccess);
  EXPECT_EQ(store_->copyMatching(item("k"), nullptr), kKeychainItemNotFound);
  EXPECT_EQ(valueOf(*store_, item("empty")), "");
}

// Missing items, foreign groups on lookup and delete, and lookups across every
// group show in the keychain's own tests.
TEST_F(KeychainStoreTest, StatusCodes) {
  ASSERT_EQ(store_->add(item("present", kSharedGroup, "v")), kKeychainSuccess);
  KeychainQuery classless = item("present"), synced = item("present"), otherAccess = item("present");
  classless.itemClass.reset();
  synced.synchronizable = true;
  otherAccess.accessible = KeychainAccessible::AlwaysThisDeviceOnly;
  using enum KeychainOperation;
  const struct {
    const char* name;
    KeychainOperation operation;
    KeychainQuery query;
    KeychainStatus expected;
  } cases[] = {
      {"add to a foreign group", Add, item("n", "OTHER.zephlo", "v"), kKeychainMissingEntitlement},
      {"copy without a class", CopyMatching, classless, kKeychainParam},
      {"copy of a synchronised item only", CopyMatching, synced, kKeychainItemNotFound},
      {"copy with another accessibility", CopyMatching, otherAccess, kKeychainItemNotFound},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    KeychainItem result;
    EXPECT_EQ(c.operation == CopyMatching ? store_->copyMatching(c.query, &result)
              : c.operation == Add        ? store_->add(c.query, &result)
                                          : store_->deleteItems(c.query),
              c.expected);
  }
  EXPECT_EQ(valueOf(*store_, item("present")), "v");

  // A bundle without access groups may use none, not even for items that exist.
  Bundle::setMain(*Bundle::fromJson(R"({"CFBundleIdentifier": "x"})", nullptr));
  EXPECT_EQ(store_->add(item("k", {}, "v")), kKeychainMissingEntitlement);
  EXPECT_EQ(store_->copyMatching(item("present"), nullptr), kKeychainMissingEntitlement);
}

TEST_F(KeychainStoreTest, TheFileIsOwnerOnlyAndOutlivesTheStore) {
  const auto mode = [](const fs::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : ~0u;
  };
  const mode_t previous = ::umask(0);  // the modes must not depend on the umask
  const fs::path nested = dir_ / "data" / "zephlo" / "keychain.db";
  auto store = KeychainStore::open(nested.string());
  ::umask(previous);
  ASSERT_TRUE(store->isOpen()) << store->openError();
  ASSERT_EQ(store->add(item("k", {}, "v")), kKeychainSuccess);
  EXPECT_EQ(mode(nested), 0600u);
  EXPECT_EQ(mode(nested.parent_path()), 0700u);
  // A rollback journal leaves nothing beside the database once a write is done.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(nested.parent_path())) names.push_back(entry.path().filename());
  EXPECT_EQ(names, std::vector<std::string>{"keychain.db"});

  // A store left open to others (an older version, a copy, a careless chmod) is
  // closed to them again when it is opened.
  store.reset();
  ASSERT_EQ(::chmod(nested.c_str(), 0644), 0);
  ASSERT_EQ(::chmod(nested.parent_path().c_str(), 0755), 0);
  auto reopened = KeychainStore::open(nested.string());
  EXPECT_EQ(mode(nested), 0600u);
  EXPECT_EQ(mode(nested.parent_path()), 0700u);
  EXPECT_EQ(valueOf(*reopened, item("k")), "v");
}

TEST_F(KeychainStoreTest, StoresThatCannotOpenAnswerNotAvailable) {
  std::ofstream(dir_ / "garbage.db") << "this is not a database, not even a little bit; " << std::string(200, 'x');
  std::ofstream(dir_ / "plain-file") << "x";
  for (const std::string& path : {(dir_ / "garbage.db").string(), (dir_ / "plain-file" / "keychain.db").string(),
                                 std::string()}) {
    SCOPED_TRACE(path);
    auto store = KeychainStore::open(path);
    EXPECT_FALSE(store->isOpen());
    EXPECT_FALSE(store->openError().empty());
    EXPECT_EQ(store->copyMatching(item("k"), nullptr), kKeychainNotAvailable);
    EXPECT_EQ(store->add(item("k", {}, "v")), kKeychainNotAvailable);
    EXPECT_EQ(store->deleteItems(item("k")), kKeychainNotAvailable);
  }
  EXPECT_FALSE(KeychainStore::open((dir_ / "absent.db").string(), KeychainOpenMode::ReadOnly)->isOpen());
  EXPECT_FALSE(fs::exists(dir_ / "absent.db"));
}

TEST_F(KeychainStoreTest, SharedStoreIsTheHostsOrTheOneAtTheDefaultPath) {
  const struct {
    std::map<std::string, std::string> env;
    std::string expected;
  } cases[] = {
      {{{"ZEPHLO_KEYCHAIN", "/k/db"}, {"XDG_DATA_HOME", "/xdg"}, {"HOME", "/home/u"}}, "/k/db"},
      {{{"ZEPHLO_KEYCHAIN", ""}, {"XDG_DATA_HOME", "/xdg"}, {"HOME", "/home/u"}}, "/xdg/zephlo/keychain.db"},
      {{{"XDG_DATA_HOME", "relative"}, {"HOME", "/home/u"}}, "/home/u/.local/share/zephlo/keychain.db"},
      {{{"XDG_DATA_HOME", ""}, {"HOME", "/home/u"}}, "/home/u/.local/share/zephlo/keychain.db"},
      {{{"HOME", "/root"}}, "/root/.local/share/zephlo/keychain.db"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(KeychainStore::defaultPath([&](std::string_view name) -> std::optional<std::string> {
                const auto it = c.env.find(std::string(name));
                return it == c.env.end() ? std::nullopt : std::optional(it->second);
              }),
              c.expected);
  }

  KeychainStore::setShared(nullptr);
  ::setenv("ZEPHLO_KEYCHAIN", (dir_ / "env" / "keychain.db").c_str(), 1);
  auto fromEnvironment = KeychainStore::shared();
  ::unsetenv("ZEPHLO_KEYCHAIN");
  EXPECT_EQ(fromEnvironment->path(), (dir_ / "env" / "keychain.db").string());
  EXPECT_TRUE(fromEnvironment->isOpen());
  KeychainStore::setShared(nullptr);
}

}  // namespace
}  // namespace zephlo::platform
