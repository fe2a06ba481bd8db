#include "zephlo/platform/bundle.hpp"

#include <fstream>
#include <sstream>

#include <boost/json.hpp>

namespace zephlo::platform {

namespace {
std::vector<std::string> textArray(const boost::json::object& o, std::string_view key) {
  std::vector<std::string> out;
  auto it = o.find(key);
  if (it == o.end() || !it->value().is_array()) return out;
  for (const auto& v : it->value().as_array())
    if (v.is_string()) out.emplace_back(v.as_string());
  return out;
}

Bundle& current() {
  static Bundle bundle = Bundle::demo();
  return bundle;
}
}  // namespace

Bundle Bundle::demo() {
  static constexpr std::string_view kDemo = R"({
    "CFBundleIdentifier": "com.example.zephlo.broadcast",
    "CFBundleName": "ZephloBroadcast",
    "CFBundleDisplayName": "Zephlo Broadcast",
    "CFBundleShortVersionString": "2.6.0",
    "CFBundleVersion": "1",
    "ZPHBroadcastExtension": "com.example.zephlo.broadcast",
    "preferredLocalizations": ["en"],
    "keychain-access-groups": ["ABCDE12345.com.example.zephlo.broadcast", "ABCDE12345.zephlo"]
  })";
  return *fromJson(kDemo, nullptr);
}

std::optional<Bundle> Bundle::load(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (error) *error = "cannot read bundle file " + path;
    return std::nullopt;
  }
  std::stringstream text;
  text << in.rdbuf();
  return fromJson(text.str(), error);
}

std::optional<Bundle> Bundle::fromJson(std::string_view text, std::string* error) {
  boost::system::error_code ec;
  auto parsed = boost::json::parse(text, ec);
  if (ec || !parsed.is_object()) {
    if (error) *error = "a bundle file holds one JSON object";
    return std::nullopt;
  }
  const auto& o = parsed.as_object();
  Bundle bundle;
  for (const auto& [key, value] : o)
    if (value.is_string()) bundle.entries_.set(std::string(key), std::string(value.as_string()));
  bundle.localizations_ = textArray(o, "preferredLocalizations");
  if (bundle.localizations_.empty()) bundle.localizations_ = textArray(o, "CFBundleLocalizations");
  bundle.accessGroups_ = textArray(o, "keychain-access-groups");
  return bundle;
}

const Bundle& Bundle::main() { return current(); }
void Bundle::setMain(Bundle bundle) { current() = std::move(bundle); }

std::optional<std::string> Bundle::info(std::string_view key) const {
  auto v = entries_.find(key);
  if (!v || !v->asString()) return std::nullopt;
  return *v->asString();
}

}  // namespace zephlo::platform
