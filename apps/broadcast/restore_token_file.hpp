// RestoreTokenFile: the token the desktop's screen-sharing portal hands back
// after the user chose a screen, kept beside the keychain database so that the
// next broadcast on the same desktop can ask to share the same screen without
// showing the dialog again. The file is readable by its owner only (0600): the
// token lets whoever holds it share the screen without asking.
//
// Plain file access on the calling thread (the main thread, before and after a
// broadcast).
#pragma once

#include <string>

namespace zephlo {

class RestoreTokenFile {
 public:
  // The file beside `keychainPath` (in the same directory).
  static RestoreTokenFile besideKeychain(const std::string& keychainPath);
  explicit RestoreTokenFile(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  // The saved token; empty when there is none or the file cannot be read.
  std::string load() const;
  // Replaces the saved token (an empty token removes the file); false when the
  // file cannot be written.
  bool save(const std::string& token) const;

 private:
  std::string path_;
};

}  // namespace zephlo
