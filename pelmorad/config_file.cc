// Reading the service's configuration file: the file and every folder above it must be beyond
// other users' reach before its text is parsed (ParseConfig in config.cc).
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "pelmora/common/error.h"
#include "pelmorad/config.h"

namespace pelmorad {
namespace {

[[noreturn]] void RefuseFile(const std::string& path, std::string_view why) {
  throw pelmora::Error(5, fmt::format("{}: refused, {}", path, why), "pelmorad");
}

// True when `info` belongs to root or to the user the service runs as.
bool OwnedByTrustedUser(const struct stat& info) {
  return info.st_uid == 0 || info.st_uid == ::geteuid();
}

// Every folder above `path` (which must be absolute) must belong to root or the service's user
// and be writable by no one else, unless it has the sticky bit and the entry below it belongs to
// root or the service's user (others cannot then rename or remove it).
void CheckFoldersAbove(const std::string& path, const std::string& shown) {
  std::string entry = path;
  while (entry.size() > 1) {
    std::size_t slash = entry.rfind('/');
    std::string folder = slash == 0 ? "/" : entry.substr(0, slash);
    struct stat below {};
    struct stat info {};
    if (::lstat(entry.c_str(), &below) != 0 || ::stat(folder.c_str(), &info) != 0) {
      RefuseFile(shown, "its folders cannot be read");
    }
    bool writable_by_others = (info.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    bool sticky_protects = (info.st_mode & S_ISVTX) != 0 && OwnedByTrustedUser(below);
    if (!OwnedByTrustedUser(info) || (writable_by_others && !sticky_protects)) {
      RefuseFile(shown, fmt::format("the folder {} can be changed by other users", folder));
    }
    entry = folder;
  }
}

// The configuration file's permissions as sshd's StrictModes checks a user's files.
void CheckFilePermissions(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    throw pelmora::Error(2, fmt::format("{}: cannot read the configuration", path), "pelmorad");
  }
  if ((info.st_mode & S_IWOTH) != 0) RefuseFile(path, "the file is writable by others");
  if ((info.st_mode & S_IWGRP) != 0) RefuseFile(path, "the file is writable by its group");
  if (!OwnedByTrustedUser(info)) {
    RefuseFile(path, "the file belongs to a user other than root and the service's");
  }
  // Both the way the name is written (a link in a writable folder could be swapped) and the file
  // it leads to.
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) {
    throw pelmora::Error(2, fmt::format("{}: cannot read the configuration", path), "pelmorad");
  }
  std::string real = resolved;
  std::free(resolved);
  std::string written = path;
  if (written.empty() || written[0] != '/') {
    char* here = ::getcwd(nullptr, 0);
    written = std::string(here != nullptr ? here : "") + "/" + written;
    std::free(here);
  }
  CheckFoldersAbove(written, path);
  CheckFoldersAbove(real, path);
  if ((info.st_mode & S_IROTH) != 0) {
    std::cerr << "pelmorad: warning: " << path
              << " is readable by every user and holds password hashes (chmod o-r)\n";
  }
}

}  // namespace

Config LoadConfig(const std::string& path, std::string* text_read) {
  CheckFilePermissions(path);
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw pelmora::Error(2, fmt::format("{}: cannot read the configuration", path), "pelmorad");
  }
  std::ostringstream text;
  text << in.rdbuf();
  Config config = ParseConfig(text.str(), path);
  if (text_read != nullptr) *text_read = text.str();
  return config;
}

}  // namespace pelmorad
