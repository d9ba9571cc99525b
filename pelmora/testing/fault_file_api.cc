#include "pelmora/testing/fault_file_api.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace pelmora::testing {
namespace {

// The path descriptor `fd` stands for ("" when unknown).
std::string PathOf(int fd) {
  if (fd == AT_FDCWD) {
    std::error_code ignored;
    return std::filesystem::current_path(ignored).string();
  }
  char target[PATH_MAX];
  std::string link = "/proc/self/fd/" + std::to_string(fd);
  ssize_t n = ::readlink(link.c_str(), target, sizeof(target) - 1);
  return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

// `path` made absolute against `folder` and its folder part resolved (the name itself may not
// exist yet).
std::string Resolved(const std::string& folder, const char* path) {
  std::filesystem::path full =
      path[0] == '/' ? std::filesystem::path(path) : std::filesystem::path(folder) / path;
  std::error_code ignored;
  std::filesystem::path parent = std::filesystem::weakly_canonical(full.parent_path(), ignored);
  return (parent / full.filename()).string();
}

}  // namespace

void FaultFileApi::Restrict(std::string folder) {
  std::lock_guard lock(mutex_);
  std::error_code ignored;
  folder_ = std::filesystem::weakly_canonical(folder, ignored).string();
}

bool FaultFileApi::InScope(FileCall, int fd, const char* path) const {
  if (folder_.empty()) return true;
  std::string file = path != nullptr ? Resolved(PathOf(fd), path) : PathOf(fd);
  return file == folder_ || file.starts_with(folder_ + "/");
}

FaultFileApi::FaultFileApi() { platform::SetFileFaults(this); }

FaultFileApi::~FaultFileApi() { platform::SetFileFaults(nullptr); }

void FaultFileApi::FailCall(FileCall kind, int nth, int error) {
  std::lock_guard lock(mutex_);
  faults_[{kind, nth}] = error;
}

void FaultFileApi::FailFrom(FileCall kind, int nth, int error) {
  std::lock_guard lock(mutex_);
  from_[kind] = {nth, error};
}

void FaultFileApi::Clear() {
  std::lock_guard lock(mutex_);
  faults_.clear();
  from_.clear();
}

int FaultFileApi::Calls(FileCall kind) const {
  std::lock_guard lock(mutex_);
  auto it = calls_.find(kind);
  return it == calls_.end() ? 0 : it->second;
}

int FaultFileApi::Check(FileCall call, int fd, const char* path) {
  std::lock_guard lock(mutex_);
  if (!InScope(call, fd, path)) return 0;
  int nth = ++calls_[call];
  if (auto it = faults_.find({call, nth}); it != faults_.end()) return it->second;
  if (auto it = from_.find(call); it != from_.end() && nth >= it->second.first) {
    return it->second.second;
  }
  return 0;
}

std::string FaultName(FileCall call, int error) {
  static constexpr const char* kCalls[] = {"open", "read", "write", "fsync", "rename"};
  const char* name = strerrorname_np(error);
  return std::string(kCalls[static_cast<int>(call)]) + "_" + (name != nullptr ? name : "E");
}

std::vector<std::string> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace pelmora::testing
