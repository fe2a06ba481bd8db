// zephlo-keychain: reads, writes and clears the keychain items that the host
// application shares with the extension ("zephlo.api", "zephlo.session", ...).
//
//   zephlo-keychain [--bundle FILE] [--keychain FILE] (set KEY VALUE | get KEY | clear KEY)
//                   [--group shared|private|NAME]
//
// `get` prints the value and exits 0, or exits 1 when the item is absent. Set-up
// failures (bundle, keychain file) exit 2.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include "zephlo/core/keychain.hpp"
#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/keychain_store.hpp"

namespace {

constexpr int kExitAbsentOrFailed = 1;
constexpr int kExitSetup = 2;

std::string resolveGroup(const std::string& group) {
  if (group == "shared") return zephlo::ZPHKeychain::sharedGroup();
  if (group == "private") return zephlo::ZPHKeychain::privateGroup();
  return group;
}

void reportStatus(const char* what, zephlo::platform::KeychainStatus status) {
  std::cerr << "zephlo-keychain: " << what << " failed with keychain status " << status << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Reads, writes and clears the Zephlo keychain items shared with the broadcast extension."};
  app.fallthrough();
  app.require_subcommand(1);
  std::string bundlePath, keychainPath, group = "shared", key, value;
  app.add_option("--bundle", bundlePath, "Bundle JSON file (default: the built-in demo bundle)");
  app.add_option("--keychain", keychainPath, "Keychain database (default: $ZEPHLO_KEYCHAIN, else the XDG data home)");
  app.add_option("--group", group, "shared, private or an access group name")->capture_default_str();
  auto* set = app.add_subcommand("set", "Store VALUE under KEY");
  set->add_option("KEY", key)->required();
  set->add_option("VALUE", value)->required();
  auto* get = app.add_subcommand("get", "Print the value under KEY");
  get->add_option("KEY", key)->required();
  auto* clear = app.add_subcommand("clear", "Remove the item under KEY");
  clear->add_option("KEY", key)->required();
  CLI11_PARSE(app, argc, argv);

  if (!bundlePath.empty()) {
    std::string error;
    auto bundle = zephlo::platform::Bundle::load(bundlePath, &error);
    if (!bundle) {
      std::cerr << "zephlo-keychain: " << error << "\n";
      return kExitSetup;
    }
    zephlo::platform::Bundle::setMain(std::move(*bundle));
  }
  auto store = zephlo::platform::KeychainStore::open(
      keychainPath.empty() ? zephlo::platform::KeychainStore::defaultPath() : keychainPath);
  if (!store->isOpen()) {
    std::cerr << "zephlo-keychain: " << store->openError() << "\n";
    return kExitSetup;
  }
  zephlo::platform::KeychainStore::setShared(store);

  std::optional<std::string> accessGroup = resolveGroup(group);
  if (set->parsed()) {
    auto status = zephlo::ZPHKeychain::setValue(value, key, accessGroup);
    if (status != zephlo::platform::kKeychainSuccess) {
      reportStatus("set", status);
      return kExitAbsentOrFailed;
    }
    return 0;
  }
  if (get->parsed()) {
    auto stored = zephlo::ZPHKeychain::getValue(key, accessGroup);
    if (!stored) return kExitAbsentOrFailed;
    std::cout << *stored << "\n";
    return 0;
  }
  // Clearing an item that is not there leaves the keychain as asked.
  auto status = zephlo::ZPHKeychain::clearKey(key, accessGroup);
  if (status != zephlo::platform::kKeychainSuccess && status != zephlo::platform::kKeychainItemNotFound) {
    reportStatus("clear", status);
    return kExitAbsentOrFailed;
  }
  return 0;
}
