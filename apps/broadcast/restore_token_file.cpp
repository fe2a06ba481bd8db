#include "apps/broadcast/restore_token_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace zephlo {

RestoreTokenFile RestoreTokenFile::besideKeychain(const std::string& keychainPath) {
  return RestoreTokenFile(
      (std::filesystem::path(keychainPath).parent_path() / "screen-cast-restore-token").string());
}

std::string RestoreTokenFile::load() const {
  std::ifstream in(path_);
  std::string token;
  std::getline(in, token);
  return token;
}

bool RestoreTokenFile::save(const std::string& token) const {
  if (token.empty()) {
    std::remove(path_.c_str());
    return true;
  }
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ignored);
  // Written whole to a private file and renamed over the old one, so that the
  // token is never readable by others, not even for a moment.
  const std::string temporary = path_ + ".new";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const std::string line = token + "\n";
  const bool written = ::fchmod(fd, 0600) == 0 &&
                       ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  ::close(fd);
  if (!written || ::rename(temporary.c_str(), path_.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace zephlo
