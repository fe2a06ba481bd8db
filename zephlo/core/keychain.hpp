// ZPHKeychain: the extension's only persistent storage, short string values in
// the keychain. The host application hands the extension its configuration in the
// shared access group ("<team>.zephlo": the API base URL and the session id); the
// extension keeps its device identifier in its private group ("<team>.<bundle>").
//
// No instances and no state: every operation is static, works on the process-wide
// keychain store, and recomputes the team identifier through the keychain each time
// a group name is needed (a probe item is added, read and deleted), so nothing is
// cached between calls. Errors are values: a null result or the keychain's status.
//
// THREADING: callable from any thread (the extension's start and session
// callbacks); the store serialises its own database access.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "zephlo/platform/keychain_store.hpp"

namespace zephlo {

// The shared item holding the service's API base URL, written by the host.
inline constexpr std::string_view kZPHApiKey = "zephlo.api";
// The shared item holding the identifier of the session to serve.
inline constexpr std::string_view kZPHSessionStorageKey = "zephlo.session";
// The private item holding the device identifier: "<bundle identifier>.zephlo.device".
std::string kZPHDeviceIdKey();

class ZPHKeychain {
 public:
  ZPHKeychain() = delete;

  // The developer team's identifier: the first component of the access group the
  // keychain gives a freshly added item of this executable. Null (and logged) when
  // the keychain fails.
  static std::optional<std::string> teamId();
  // "<team>.zephlo"; a missing team reads "(null)".
  static std::string sharedGroup();
  // "<team>.<bundle identifier>"; a missing team reads "(null)".
  static std::string privateGroup();

  // The base query of every item operation: a generic password whose account and
  // service are `key`, in the data-protection keychain, restricted to `inGroup`
  // when one is given (else the executable's default group applies).
  static platform::KeychainQuery queryForKey(std::string_view key, const std::optional<std::string>& inGroup);

  // Replaces the item: deletes it, then adds it unless the delete failed for
  // another reason than the item being absent. Returns the keychain's status.
  static platform::KeychainStatus setValue(std::string_view value, std::string_view forKey,
                                           const std::optional<std::string>& inGroup);
  // The item's value, or null when it is absent, has no data or cannot be read.
  static std::optional<std::string> getValue(std::string_view key, const std::optional<std::string>& inGroup);
  // Deletes the item; the status is returned as the keychain gave it.
  static platform::KeychainStatus clearKey(std::string_view key, const std::optional<std::string>& inGroup);
};

}  // namespace zephlo
