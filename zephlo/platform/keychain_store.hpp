// KeychainStore: the keychain's item interface (copy-matching, add, delete) over
// one SQLite database, for the generic-password items that the host application
// and the extension share. Items are keyed by access group, account and service;
// the access groups a caller may use are the main bundle's keychain-access-groups,
// the first of which is the default group given to an item added without one.
// Statuses are the keychain's own codes (0, -25300 not found, -25299 duplicate,
// -34018 missing entitlement, ...), returned as values.
//
// The database lives in one file, created 0600 inside a 0700 directory. Every
// write is one transaction in a rollback journal with synchronous=FULL, so a crash
// never leaves half an item and a store on read-only media can still be read.
// Other processes may use the same file at the same time: SQLite's file locks keep
// them apart and a busy timeout lets each wait for the other's transaction.
//
// The process-wide store (`shared`) is what the library uses; the host sets it
// once at start-up, or it opens `defaultPath()` on first use. Callers share it.
//
// THREADING: every operation may be called from any thread; one mutex per store
// serialises the calls on its database connection.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zephlo/base/value.hpp"

struct sqlite3;

namespace zephlo::platform {

// The keychain's 32-bit status codes.
using KeychainStatus = std::int32_t;
inline constexpr KeychainStatus kKeychainSuccess = 0;
inline constexpr KeychainStatus kKeychainItemNotFound = -25300;
inline constexpr KeychainStatus kKeychainDuplicateItem = -25299;
inline constexpr KeychainStatus kKeychainMissingEntitlement = -34018;
// A query the store cannot answer (no item class, or one it does not keep).
inline constexpr KeychainStatus kKeychainParam = -50;
// The store could not be opened.
inline constexpr KeychainStatus kKeychainNotAvailable = -25291;
// A write to a store that is read-only (read-only file, media or open mode).
inline constexpr KeychainStatus kKeychainWritePermission = -61;
// The database failed: disk error, or another process held it past the timeout.
inline constexpr KeychainStatus kKeychainIO = -36;

enum class KeychainItemClass { GenericPassword };

enum class KeychainAccessible {
  WhenUnlocked,
  AfterFirstUnlock,
  Always,
  WhenPasscodeSetThisDeviceOnly,
  WhenUnlockedThisDeviceOnly,
  AfterFirstUnlockThisDeviceOnly,
  AlwaysThisDeviceOnly,
};

// A query or attribute dictionary of the item interface. Attributes that are set
// narrow a search (or describe the item to add); unset ones match anything, except
// synchronizable, whose absence matches only items that are not synchronised.
struct KeychainQuery {
  std::optional<KeychainItemClass> itemClass;
  std::optional<std::string> account;
  std::optional<std::string> service;
  std::optional<std::string> accessGroup;
  bool returnAttributes = false;
  bool returnData = false;
  // Copy-matching answers one item whether or not this is set; it is kept so a
  // query says what it means.
  bool matchLimitOne = false;
  std::optional<Bytes> valueData;
  std::optional<KeychainAccessible> accessible;
  std::optional<bool> synchronizable;
  // Accepted for every query; this store is the data-protection keychain.
  std::optional<bool> useDataProtectionKeychain;

  bool operator==(const KeychainQuery&) const = default;
};

// The result dictionary of copy-matching and add: the attributes when they were
// asked for, and the value data when it was asked for and the item has some.
struct KeychainItem {
  std::optional<KeychainItemClass> itemClass;
  std::optional<std::string> accessGroup;
  std::optional<std::string> account;
  std::optional<std::string> service;
  std::optional<KeychainAccessible> accessible;
  std::optional<bool> synchronizable;
  std::optional<Bytes> valueData;
};

enum class KeychainOperation { CopyMatching, Add, Delete };
enum class KeychainOpenMode { ReadWrite, ReadOnly };

class KeychainStore {
 public:
  // Opens (creating when missing, in ReadWrite mode) the database at `path`. A
  // store that failed to open answers kKeychainNotAvailable to everything and
  // says why in openError(). A ReadWrite store on a file or medium that cannot be
  // written opens read-only.
  static std::shared_ptr<KeychainStore> open(const std::string& path,
                                             KeychainOpenMode mode = KeychainOpenMode::ReadWrite);

  // The process-wide store: the one last given to setShared, or else the database
  // at defaultPath(), opened on first use.
  static std::shared_ptr<KeychainStore> shared();
  static void setShared(std::shared_ptr<KeychainStore> store);

  // Where the store lives unless the host says otherwise: $ZEPHLO_KEYCHAIN, else
  // $XDG_DATA_HOME/zephlo/keychain.db, else ~/.local/share/zephlo/keychain.db.
  // Empty or relative XDG_DATA_HOME values are ignored, as the XDG rules say.
  static std::string defaultPath();
  using Environment = std::function<std::optional<std::string>(std::string_view name)>;
  static std::string defaultPath(const Environment& environment);

  ~KeychainStore();
  KeychainStore(const KeychainStore&) = delete;
  KeychainStore& operator=(const KeychainStore&) = delete;

  // SecItemCopyMatching: the first item matching `query` (items of the default
  // group first). `result`, when given, receives the attributes and data asked for.
  KeychainStatus copyMatching(const KeychainQuery& query, KeychainItem* result);
  // SecItemAdd: adds the item `attributes` describes, in the default group when
  // none is given. `result`, when given and attributes are asked for, receives the
  // new item's attributes, including its access group.
  KeychainStatus add(const KeychainQuery& attributes, KeychainItem* result = nullptr);
  // SecItemDelete: deletes every item matching `query`.
  KeychainStatus deleteItems(const KeychainQuery& query);

  bool isOpen() const { return db_ != nullptr; }
  bool isReadOnly() const { return readOnly_; }
  const std::string& openError() const { return openError_; }
  const std::string& path() const { return path_; }

  // Makes an operation answer a status of the hook's choosing instead of running
  // (the hook returns empty to let it run): how hosts and tests see how callers
  // cope with a failing keychain. An empty hook removes it.
  using FaultHook = std::function<std::optional<KeychainStatus>(KeychainOperation)>;
  void setFaultHook(FaultHook hook);

 private:
  explicit KeychainStore(std::string path);
  std::optional<KeychainStatus> injectedFault(KeychainOperation operation);

  std::mutex mutex_;
  std::string path_;
  sqlite3* db_ = nullptr;
  bool readOnly_ = false;
  std::string openError_;
  FaultHook faultHook_;
};

}  // namespace zephlo::platform
