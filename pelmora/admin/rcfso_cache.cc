// RCFSO's server-file cache and the session's addresses.
//
// A remote file D:\Data\shop.ini of the server reached as "srv01" is cached at
// <cache folder>srv01/D$/Data/shop.ini. The host text and the remote path come from callers and
// servers: a host text or path that would name anything outside the cache folder is refused
// before anything is written.
#include <string>

#include "pelmora/admin/internal/local_file.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/internal/platform.h"

namespace pelmora::admin {
namespace {

constexpr std::string_view kCacheRoutine = "getUpdatedServerFileToTempFolder";
// Error number of a host text or remote path refused for the cache.
constexpr int32_t kPathAccessError = 75;

// Whether `path` ('/'-separated) has a ".." component.
bool ClimbsUp(std::string_view path) {
  size_t start = 0;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (path.substr(start, end - start) == "..") return true;
    start = end + 1;
  }
  return false;
}

bool SafeHostText(std::string_view host) {
  return !host.empty() && host != "." && host != ".." &&
         host.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos;
}

}  // namespace

std::string RCFSO::getLocalIP() const { return socket_.LocalIP(); }

std::string RCFSO::getRemoteIP() const { return socket_.RemoteHost(); }

std::optional<std::string> RCFSO::CachePathOf(std::string_view remote_path) const {
  const std::string& host = socket_.RemoteHost();
  if (!SafeHostText(host) || remote_path.empty()) return std::nullopt;
  std::string rest(remote_path.size() > 2 ? remote_path.substr(2) : std::string_view());
  for (char& c : rest) {
    if (c == '\\') c = '/';
  }
  const std::string drive = std::string(1, remote_path[0]) + "$";
  if (drive.find_first_of(std::string_view("/\0", 2)) != std::string::npos || ClimbsUp(rest) ||
      rest.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  return cache_folder_ + host + "/" + drive + rest;
}

bool RCFSO::getUpdatedServerFileToTempFolder(std::string_view sRemoteFile,
                                             std::string& sLocalFile) {
  ClearError();
  const std::optional<std::string> cache_path = CachePathOf(sRemoteFile);
  if (!cache_path) {
    sLocalFile.clear();
    SetError(kPathAccessError, std::string(RuntimeErrorText(kPathAccessError).value_or("")) + ": " +
                                   socket_.RemoteHost() + " " + std::string(sRemoteFile));
    LogFailure(err_description_, "RCFSO", kCacheRoutine, 1);
    return false;
  }
  sLocalFile = *cache_path;
  const std::string remote(sRemoteFile);
  pelmora::internal::CreateFolderPath(sLocalFile);
  if (!internal::IsRegularFile(sLocalFile) && !Download(sLocalFile, remote)) {
    LogFailure("Cannot get " + remote + " from server", "OrvSettingReader", kCacheRoutine, 1);
    return false;
  }
  RCFileInfo info;
  if (!GetFileInfo(remote, info)) {
    LogFailure("cannot access remote " + remote, "RCFSO", kCacheRoutine, 1);
    return false;
  }
  const std::optional<int64_t> cached = internal::LastWriteSeconds(sLocalFile);
  if (cached && Date::FromUnixTime(*cached) == info.LastWriteTime()) return true;
  if (Download(sLocalFile, remote)) return true;
  LogFailure("Cannot get " + remote + " from server", "RCFSO", kCacheRoutine, 1);
  return false;
}

}  // namespace pelmora::admin
