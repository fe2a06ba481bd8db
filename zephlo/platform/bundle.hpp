// Bundle: the running executable's information entries (identifier, names,
// versions, the broadcast extension's identifier, preferred localizations) and its
// keychain access groups. Hosts load it from a JSON file or use the built-in demo
// bundle; it is set once at start-up, before the extension is created.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zephlo/base/value.hpp"

namespace zephlo::platform {

class Bundle {
 public:
  // The demo bundle: team ABCDE12345, identifier com.example.zephlo.broadcast.
  static Bundle demo();
  // Reads a bundle from a JSON object file: the information entries as keys
  // ("CFBundleIdentifier", "CFBundleName", ...), "CFBundleLocalizations" or
  // "preferredLocalizations" (an array) and "keychain-access-groups" (an array).
  // Empty with `error` set when the file cannot be read or is not such an object.
  static std::optional<Bundle> load(const std::string& path, std::string* error);
  static std::optional<Bundle> fromJson(std::string_view text, std::string* error);

  // The bundle of this process; the demo bundle until `setMain`.
  static const Bundle& main();
  static void setMain(Bundle bundle);

  // The information entry `key` when it is present and text.
  std::optional<std::string> info(std::string_view key) const;
  std::string identifier() const { return info("CFBundleIdentifier").value_or(""); }
  const std::vector<std::string>& preferredLocalizations() const { return localizations_; }
  const std::vector<std::string>& keychainAccessGroups() const { return accessGroups_; }

 private:
  ValueMap entries_;
  std::vector<std::string> localizations_;
  std::vector<std::string> accessGroups_;
};

}  // namespace zephlo::platform
