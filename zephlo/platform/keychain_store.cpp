#include "zephlo/platform/keychain_store.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>
#include <utility>
#include <variant>

#include "zephlo/platform/bundle.hpp"

namespace zephlo::platform {

namespace {

// How long one process waits for another's transaction before giving up.
constexpr std::chrono::milliseconds kBusyTimeout{5000};
constexpr int kSchemaVersion = 1;
constexpr std::string_view kGenericPasswordClass = "genp";

constexpr std::array<std::pair<KeychainAccessible, std::string_view>, 7> kAccessibleNames{{
    {KeychainAccessible::WhenUnlocked, "WhenUnlocked"},
    {KeychainAccessible::AfterFirstUnlock, "AfterFirstUnlock"},
    {KeychainAccessible::Always, "Always"},
    {KeychainAccessible::WhenPasscodeSetThisDeviceOnly, "WhenPasscodeSetThisDeviceOnly"},
    {KeychainAccessible::WhenUnlockedThisDeviceOnly, "WhenUnlockedThisDeviceOnly"},
    {KeychainAccessible::AfterFirstUnlockThisDeviceOnly, "AfterFirstUnlockThisDeviceOnly"},
    {KeychainAccessible::AlwaysThisDeviceOnly, "AlwaysThisDeviceOnly"},
}};

std::string_view accessibleName(KeychainAccessible accessible) {
  for (const auto& [value, name] : kAccessibleNames)
    if (value == accessible) return name;
  return kAccessibleNames[0].second;
}

std::optional<KeychainAccessible> accessibleFromName(std::string_view name) {
  for (const auto& [value, text] : kAccessibleNames)
    if (text == name) return value;
  return std::nullopt;
}

KeychainStatus statusFor(int sqliteCode) {
  switch (sqliteCode & 0xff) {
    case SQLITE_READONLY:
      return kKeychainWritePermission;
    case SQLITE_CONSTRAINT:
      return kKeychainDuplicateItem;
    default:
      return kKeychainIO;
  }
}

struct StatementDeleter {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

using Binding = std::variant<std::string, std::int64_t, std::optional<Bytes>>;

// Prepares `sql` and binds `bindings` to its parameters in order.
int prepare(sqlite3* db, const std::string& sql, const std::vector<Binding>& bindings, Statement& out) {
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr);
  out.reset(raw);
  if (rc != SQLITE_OK) return rc;
  int index = 1;
  for (const auto& binding : bindings) {
    if (auto text = std::get_if<std::string>(&binding)) {
      rc = sqlite3_bind_text(raw, index, text->data(), static_cast<int>(text->size()), SQLITE_TRANSIENT);
    } else if (auto number = std::get_if<std::int64_t>(&binding)) {
      rc = sqlite3_bind_int64(raw, index, *number);
    } else {
      const auto& bytes = std::get<std::optional<Bytes>>(binding);
      if (!bytes)
        rc = sqlite3_bind_null(raw, index);
      else  // An empty value is still a value: bind a zero-length blob, not NULL.
        rc = sqlite3_bind_blob(raw, index, bytes->empty() ? "" : static_cast<const void*>(bytes->data()),
                               static_cast<int>(bytes->size()), SQLITE_TRANSIENT);
    }
    if (rc != SQLITE_OK) return rc;
    ++index;
  }
  return SQLITE_OK;
}

// Waits out another process's transaction. SQLite's own timeout handler backs
// off to 100 ms between attempts, and a reader behind a writer that commits
// continuously can then miss every gap between the commits until it gives up; a
// short, even pace finds them.
int waitForOthers(void*, int attempts) {
  constexpr auto kPace = std::chrono::milliseconds(1);
  if (attempts * kPace >= kBusyTimeout) return 0;
  std::this_thread::sleep_for(kPace);
  return 1;
}

int execute(sqlite3* db, const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }

std::string columnText(sqlite3_stmt* statement, int column) {
  auto text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  return text ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, column))) : std::string();
}

// The search the query describes, as a WHERE clause and its bindings. The groups
// are those the caller may search: the query's own, or all of the bundle's.
struct Match {
  std::string where;
  std::vector<Binding> bindings;
};

Match matchFor(const KeychainQuery& query, const std::vector<std::string>& groups) {
  Match match;
  match.where = "class = ? AND access_group IN (";
  match.bindings.emplace_back(std::string(kGenericPasswordClass));
  for (std::size_t i = 0; i < groups.size(); ++i) {
    match.where += i ? ", ?" : "?";
    match.bindings.emplace_back(groups[i]);
  }
  match.where += ")";
  if (query.account) {
    match.where += " AND account = ?";
    match.bindings.emplace_back(*query.account);
  }
  if (query.service) {
    match.where += " AND service = ?";
    match.bindings.emplace_back(*query.service);
  }
  if (query.accessible) {
    match.where += " AND accessible = ?";
    match.bindings.emplace_back(std::string(accessibleName(*query.accessible)));
  }
  match.where += " AND synchronizable = ?";
  match.bindings.emplace_back(std::int64_t{query.synchronizable.value_or(false)});
  return match;
}

// The groups a query may reach, or the status that refuses it: an item class is
// required, and only the bundle's own access groups are open to it.
std::variant<std::vector<std::string>, KeychainStatus> groupsFor(const KeychainQuery& query) {
  if (query.itemClass != KeychainItemClass::GenericPassword) return kKeychainParam;
  std::vector<std::string> entitled = Bundle::main().keychainAccessGroups();
  if (entitled.empty()) return kKeychainMissingEntitlement;
  if (!query.accessGroup) return entitled;
  if (std::find(entitled.begin(), entitled.end(), *query.accessGroup) == entitled.end())
    return kKeychainMissingEntitlement;
  return std::vector<std::string>{*query.accessGroup};
}

// Creates every missing folder of `directory` with mode 0700.
bool makeDirectories(const std::filesystem::path& directory, std::string* error) {
  if (directory.empty()) return true;
  std::filesystem::path current;
  for (const auto& component : directory) {
    current /= component;
    if (::mkdir(current.c_str(), 0700) == 0) {
      ::chmod(current.c_str(), 0700);  // whatever the umask says
    } else if (errno != EEXIST) {
      *error = "cannot create " + current.string() + ": " + std::strerror(errno);
      return false;
    }
  }
  return true;
}

// Creates the database file with mode 0600 unless it exists. The file is made
// before SQLite sees it so that it is never readable by others, not even briefly.
bool createFile(const std::string& path, std::string* error) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (errno == EEXIST) return true;
    *error = "cannot create " + path + ": " + std::strerror(errno);
    return false;
  }
  ::fchmod(fd, 0600);
  ::close(fd);
  return true;
}

std::string octal(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// Closes an existing store to others: the file to 0600 and its folder to 0700
// when they are ours. A file of someone else's that others may read, or a folder
// of someone else's where others may replace the file, is refused. A sticky folder
// such as /tmp is shared by design and left as it is; so is a medium that cannot
// be written (the store then opens read-only).
bool closeToOthers(const std::string& path, std::string* error) {
  const auto tighten = [&](const std::string& name, mode_t allowed, mode_t refused, bool folder) {
    struct stat info {};
    if (::stat(name.c_str(), &info) != 0) {
      *error = "cannot read the modes of " + name + ": " + std::strerror(errno);
      return false;
    }
    if ((info.st_mode & ~allowed & 07777) == 0 || (folder && (info.st_mode & S_ISVTX))) return true;
    if (info.st_uid != ::geteuid()) {
      if ((info.st_mode & refused) == 0) return true;
      *error = name + " has mode " + octal(info.st_mode) + " and belongs to uid " + std::to_string(info.st_uid) +
               ", not to this user: refusing a store others can reach";
      return false;
    }
    if (::chmod(name.c_str(), allowed) != 0 && errno != EROFS) {
      *error = "cannot set mode " + octal(allowed) + " on " + name + ": " + std::strerror(errno);
      return false;
    }
    return true;
  };
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  return tighten(folder.empty() ? std::string(".") : folder.string(), 0700, 0022, true) &&
         tighten(path, 0600, 0077, false);
}

std::mutex& sharedMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<KeychainStore>& sharedStore() {
  static std::shared_ptr<KeychainStore> store;
  return store;
}

}  // namespace

KeychainStore::KeychainStore(std::string path) : path_(std::move(path)) {}

KeychainStore::~KeychainStore() {
  if (db_) sqlite3_close_v2(db_);
}

std::shared_ptr<KeychainStore> KeychainStore::open(const std::string& path, KeychainOpenMode mode) {
  std::shared_ptr<KeychainStore> store(new KeychainStore(path));
  auto fail = [&](std::string why) {
    store->openError_ = "keychain " + path + ": " + why;
    if (store->db_) sqlite3_close_v2(store->db_);
    store->db_ = nullptr;
    return store;
  };
  if (path.empty()) return fail("no path");

  int flags = SQLITE_OPEN_NOMUTEX;
  if (mode == KeychainOpenMode::ReadWrite) {
    std::string error;
    if (!makeDirectories(std::filesystem::path(path).parent_path(), &error) || !createFile(path, &error) ||
        !closeToOthers(path, &error))
      return fail(error);
    flags |= SQLITE_OPEN_READWRITE;
  } else {
    flags |= SQLITE_OPEN_READONLY;
  }
  int rc = sqlite3_open_v2(path.c_str(), &store->db_, flags, nullptr);
  if (rc != SQLITE_OK) return fail(store->db_ ? sqlite3_errmsg(store->db_) : sqlite3_errstr(rc));
  sqlite3_busy_handler(store->db_, waitForOthers, nullptr);
  store->readOnly_ = sqlite3_db_readonly(store->db_, "main") == 1;

  sqlite3* db = store->db_;
  Statement version;
  rc = prepare(db, "PRAGMA user_version", {}, version);
  if (rc != SQLITE_OK || sqlite3_step(version.get()) != SQLITE_ROW) return fail(sqlite3_errmsg(db));
  int schema = sqlite3_column_int(version.get(), 0);
  version.reset();
  if (schema > kSchemaVersion) return fail("written by a newer version (schema " + std::to_string(schema) + ")");
  if (store->readOnly_) {
    if (schema == 0) return fail("read-only and holds no keychain");
    return store;
  }

  // A rollback journal (not WAL) keeps the file readable from read-only media;
  // synchronous=FULL makes a committed item survive a power cut.
  if (execute(db, "PRAGMA journal_mode=DELETE") != SQLITE_OK || execute(db, "PRAGMA synchronous=FULL") != SQLITE_OK)
    return fail(sqlite3_errmsg(db));
  if (schema == 0) {
    const char* kCreate =
        "BEGIN IMMEDIATE;"
        "CREATE TABLE IF NOT EXISTS items ("
        "  class TEXT NOT NULL,"
        "  access_group TEXT NOT NULL,"
        "  account TEXT NOT NULL,"
        "  service TEXT NOT NULL,"
        "  synchronizable INTEGER NOT NULL,"
        "  accessible TEXT NOT NULL,"
        "  data BLOB,"
        "  UNIQUE (class, access_group, account, service, synchronizable));"
        "PRAGMA user_version = 1;"
        "COMMIT;";
    if (execute(db, kCreate) != SQLITE_OK) {
      std::string why = sqlite3_errmsg(db);
      execute(db, "ROLLBACK");
      return fail(why);
    }
  }
  return store;
}

std::shared_ptr<KeychainStore> KeychainStore::shared() {
  std::lock_guard lock(sharedMutex());
  auto& store = sharedStore();
  if (!store) store = open(defaultPath());
  return store;
}

void KeychainStore::setShared(std::shared_ptr<KeychainStore> store) {
  std::lock_guard lock(sharedMutex());
  sharedStore().swap(store);
}

std::string KeychainStore::defaultPath() {
  return defaultPath([](std::string_view name) -> std::optional<std::string> {
    const char* value = std::getenv(std::string(name).c_str());
    if (!value) return std::nullopt;
    return std::string(value);
  });
}

std::string KeychainStore::defaultPath(const Environment& environment) {
  if (auto explicitPath = environment("ZEPHLO_KEYCHAIN"); explicitPath && !explicitPath->empty()) return *explicitPath;
  if (auto dataHome = environment("XDG_DATA_HOME"); dataHome && !dataHome->empty() && dataHome->front() == '/')
    return *dataHome + "/zephlo/keychain.db";
  std::string home = environment("HOME").value_or("");
  if (home.empty()) {
    // No HOME (a service started without one): the password database knows.
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) home = entry->pw_dir;
  }
  return (home.empty() ? std::string(".") : home) + "/.local/share/zephlo/keychain.db";
}

void KeychainStore::setFaultHook(FaultHook hook) {
  std::lock_guard lock(mutex_);
  faultHook_ = std::move(hook);
}

std::optional<KeychainStatus> KeychainStore::injectedFault(KeychainOperation operation) {
  return faultHook_ ? faultHook_(operation) : std::nullopt;
}

KeychainStatus KeychainStore::copyMatching(const KeychainQuery& query, KeychainItem* result) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(KeychainOperation::CopyMatching)) return *fault;
  if (!db_) return kKeychainNotAvailable;
  auto groups = groupsFor(query);
  if (auto refused = std::get_if<KeychainStatus>(&groups)) return *refused;
  const auto& searched = std::get<std::vector<std::string>>(groups);

  Match match = matchFor(query, searched);
  Statement select;
  std::string sql = "SELECT access_group, account, service, accessible, synchronizable, data FROM items WHERE " +
                    match.where + " ORDER BY rowid";
  if (int rc = prepare(db_, sql, match.bindings, select); rc != SQLITE_OK) return statusFor(rc);

  // Of several matches, the one in the earliest group of the bundle's list wins.
  std::optional<KeychainItem> best;
  std::size_t bestRank = searched.size();
  int rc;
  while ((rc = sqlite3_step(select.get())) == SQLITE_ROW) {
    std::string group = columnText(select.get(), 0);
    auto rank = static_cast<std::size_t>(std::find(searched.begin(), searched.end(), group) - searched.begin());
    if (best && rank >= bestRank) continue;
    KeychainItem item;
    item.itemClass = KeychainItemClass::GenericPassword;
    item.accessGroup = std::move(group);
    item.account = columnText(select.get(), 1);
    item.service = columnText(select.get(), 2);
    item.accessible = accessibleFromName(columnText(select.get(), 3));
    item.synchronizable = sqlite3_column_int64(select.get(), 4) != 0;
    if (sqlite3_column_type(select.get(), 5) != SQLITE_NULL) {
      auto data = static_cast<const std::uint8_t*>(sqlite3_column_blob(select.get(), 5));
      item.valueData = Bytes(data, data + sqlite3_column_bytes(select.get(), 5));
    }
    best = std::move(item);
    bestRank = rank;
  }
  if (rc != SQLITE_DONE) return statusFor(rc);
  if (!best) return kKeychainItemNotFound;

  if (result) {
    *result = KeychainItem{};
    if (query.returnAttributes) {
      *result = *best;
      result->valueData.reset();
    }
    if (query.returnData) result->valueData = std::move(best->valueData);
  }
  return kKeychainSuccess;
}

KeychainStatus KeychainStore::add(const KeychainQuery& attributes, KeychainItem* result) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(KeychainOperation::Add)) return *fault;
  if (!db_) return kKeychainNotAvailable;
  auto groups = groupsFor(attributes);
  if (auto refused = std::get_if<KeychainStatus>(&groups)) return *refused;
  if (readOnly_) return kKeychainWritePermission;

  KeychainItem item;
  item.itemClass = KeychainItemClass::GenericPassword;
  item.accessGroup = std::get<std::vector<std::string>>(groups).front();  // the default group when none is given
  item.account = attributes.account.value_or("");
  item.service = attributes.service.value_or("");
  item.accessible = attributes.accessible.value_or(KeychainAccessible::WhenUnlocked);
  item.synchronizable = attributes.synchronizable.value_or(false);

  Statement insert;
  int rc = prepare(db_,
                   "INSERT INTO items (class, access_group, account, service, synchronizable, accessible, data) "
                   "VALUES (?, ?, ?, ?, ?, ?, ?)",
                   {std::string(kGenericPasswordClass), *item.accessGroup, *item.account, *item.service,
                    std::int64_t{*item.synchronizable}, std::string(accessibleName(*item.accessible)),
                    attributes.valueData},
                   insert);
  if (rc != SQLITE_OK) return statusFor(rc);
  // One statement outside an explicit transaction is its own transaction.
  rc = sqlite3_step(insert.get());
  if (rc != SQLITE_DONE) return statusFor(rc);

  if (result && attributes.returnAttributes) *result = std::move(item);
  return kKeychainSuccess;
}

KeychainStatus KeychainStore::transaction(const std::function<KeychainStatus()>& body) {
  std::lock_guard lock(mutex_);
  // A store that cannot be written has nothing to keep together, and a
  // transaction inside another is part of it.
  if (!db_ || readOnly_ || transactionDepth_ > 0) return body();
  // IMMEDIATE takes the write lock up front: two processes that both read before
  // writing cannot both read the old state.
  if (int rc = execute(db_, "BEGIN IMMEDIATE"); rc != SQLITE_OK) return statusFor(rc);
  ++transactionDepth_;
  KeychainStatus status = body();
  --transactionDepth_;
  if (status == kKeychainSuccess) {
    if (int rc = execute(db_, "COMMIT"); rc != SQLITE_OK) status = statusFor(rc);
  }
  // Nothing of a failed body is kept; after a failed commit this ends the transaction.
  if (sqlite3_get_autocommit(db_) == 0) execute(db_, "ROLLBACK");
  return status;
}

KeychainStatus KeychainStore::deleteItems(const KeychainQuery& query) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(KeychainOperation::Delete)) return *fault;
  if (!db_) return kKeychainNotAvailable;
  auto groups = groupsFor(query);
  if (auto refused = std::get_if<KeychainStatus>(&groups)) return *refused;
  if (readOnly_) return kKeychainWritePermission;

  Match match = matchFor(query, std::get<std::vector<std::string>>(groups));
  Statement remove;
  if (int rc = prepare(db_, "DELETE FROM items WHERE " + match.where, match.bindings, remove); rc != SQLITE_OK)
    return statusFor(rc);
  int rc = sqlite3_step(remove.get());
  if (rc != SQLITE_DONE) return statusFor(rc);
  return sqlite3_changes(db_) > 0 ? kKeychainSuccess : kKeychainItemNotFound;
}

}  // namespace zephlo::platform
