#include "zephlo/core/keychain.hpp"

#include "zephlo/base/utf8.hpp"

#include <cstdint>

#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/log.hpp"

namespace zephlo {

using platform::KeychainAccessible;
using platform::KeychainItem;
using platform::KeychainItemClass;
using platform::KeychainQuery;
using platform::KeychainStatus;
using platform::KeychainStore;

namespace {

constexpr std::string_view kProbeKey = "zphBundleTest";
// How a missing team identifier reads in a group name: the platform's text for a
// null object, formatted all the same.
constexpr std::string_view kNullText = "(null)";

// The data-protection keychain exists from iOS 13 on; every system this runs on
// counts as that.
constexpr bool kUsesDataProtectionKeychain = true;

KeychainQuery probeQuery() {
  KeychainQuery query;
  query.itemClass = KeychainItemClass::GenericPassword;
  query.account = std::string(kProbeKey);
  query.service = std::string(kProbeKey);
  query.returnAttributes = true;
  query.accessible = KeychainAccessible::AlwaysThisDeviceOnly;
  query.synchronizable = false;
  if (kUsesDataProtectionKeychain) query.useDataProtectionKeychain = true;
  return query;
}

std::string groupText(const std::optional<std::string>& group) { return group ? *group : std::string(kNullText); }

}  // namespace

std::string kZPHDeviceIdKey() { return platform::Bundle::main().identifier() + ".zephlo.device"; }

std::optional<std::string> ZPHKeychain::teamId() {
  auto store = KeychainStore::shared();
  KeychainQuery query = probeQuery();
  KeychainItem result;
  KeychainStatus status = store->copyMatching(query, &result);
  if (status == platform::kKeychainItemNotFound) status = store->add(query, &result);
  if (status != platform::kKeychainSuccess) {
    platform::log("Failed to determine team ID " + std::to_string(status));
    return std::nullopt;
  }
  std::string group = result.accessGroup.value_or("");
  std::string team = group.substr(0, group.find('.'));
  // The probe never outlives the call, whether it was found or just added.
  store->deleteItems(query);
  return team;
}

std::string ZPHKeychain::sharedGroup() { return groupText(teamId()) + ".zephlo"; }

std::string ZPHKeychain::privateGroup() { return groupText(teamId()) + "." + platform::Bundle::main().identifier(); }

KeychainQuery ZPHKeychain::queryForKey(std::string_view key, const std::optional<std::string>& inGroup) {
  KeychainQuery query;
  query.itemClass = KeychainItemClass::GenericPassword;
  query.account = std::string(key);
  query.service = std::string(key);
  if (kUsesDataProtectionKeychain) query.useDataProtectionKeychain = true;
  if (inGroup) query.accessGroup = *inGroup;
  return query;
}

KeychainStatus ZPHKeychain::setValue(std::string_view value, std::string_view forKey,
                                     const std::optional<std::string>& inGroup) {
  auto store = KeychainStore::shared();
  KeychainQuery query = queryForKey(forKey, inGroup);
  KeychainQuery attributes = query;
  attributes.valueData = Bytes(value.begin(), value.end());
  attributes.accessible = KeychainAccessible::AlwaysThisDeviceOnly;
  attributes.synchronizable = false;

  // There is no update in place: the old item goes first.
  KeychainStatus status = store->deleteItems(query);
  if (status == platform::kKeychainSuccess || status == platform::kKeychainItemNotFound)
    return store->add(attributes, nullptr);
  if (status == platform::kKeychainMissingEntitlement)
    platform::log("Missing entitlement for keychain group " + groupText(inGroup));
  return status;
}

std::optional<std::string> ZPHKeychain::getValue(std::string_view key, const std::optional<std::string>& inGroup) {
  KeychainQuery query = queryForKey(key, inGroup);
  query.returnData = true;
  query.matchLimitOne = true;
  query.returnAttributes = true;
  KeychainItem result;
  KeychainStatus status = KeychainStore::shared()->copyMatching(query, &result);
  if (status == platform::kKeychainItemNotFound) return std::nullopt;
  if (status == platform::kKeychainMissingEntitlement) {
    // Deliberately names the shared group, whatever group was asked for.
    platform::log("Missing entitlement for keychain group " + sharedGroup());
    return std::nullopt;
  }
  if (status != platform::kKeychainSuccess) {
    platform::log("Failed to get keychain value " + std::to_string(status));
    return std::nullopt;
  }
  if (!result.valueData) {
    platform::log("Keychain item was missing data");
    return std::nullopt;
  }
  if (!isValidUtf8(*result.valueData)) return std::nullopt;
  return std::string(result.valueData->begin(), result.valueData->end());
}

KeychainStatus ZPHKeychain::clearKey(std::string_view key, const std::optional<std::string>& inGroup) {
  return KeychainStore::shared()->deleteItems(queryForKey(key, inGroup));
}

}  // namespace zephlo
