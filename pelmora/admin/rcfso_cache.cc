// RCFSO's server-file cache and the session's addresses.
//
// A remote file D:\Data\shop.ini of the server reached as "srv01" is cached at
// <cache folder>srv01/D$/Data/shop.ini. The host text and the remote path come from callers and
// servers: a host text or path that would name anything outside the cache folder is refused
// before anything is written (its path is still handed back, as for every other outcome).
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

// Whether a host text names one folder inside the cache folder (empty names the cache folder
// itself, as for an object that was never connected).
bool SafeHostText(std::string_view host) {
  return host != "." && host != ".." &&
         host.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos;
}

// The byte length of the UTF-8 character that starts `text` (1 for a stray byte).
size_t FirstCharacterLength(std::string_view text) {
  size_t n = 1;
  while (n < text.size() && (static_cast<uint8_t>(text[n]) & 0xC0) == 0x80) ++n;
  return n;
}

}  // namespace

std::string RCFSO::getLocalIP() const { return socket_.LocalIP(); }

std::string RCFSO::getRemoteIP() const { return socket_.RemoteHost(); }

std::string RCFSO::CachePathOf(std::string_view remote_path) const {
  const size_t first = remote_path.empty() ? 0 : FirstCharacterLength(remote_path);
  std::string_view rest = remote_path.substr(first);
  rest.remove_prefix(rest.empty() ? 0 : FirstCharacterLength(rest));
  std::string path = cache_folder_ + socket_.RemoteHost() + "/" +
                     std::string(remote_path.substr(0, first)) + "$" + std::string(rest);
  for (size_t i = cache_folder_.size(); i < path.size(); ++i) {
    if (path[i] == '\\') path[i] = '/';
  }
  return path;
}

bool RCFSO::CachePathStaysInside(std::string_view remote_path) const {
  const std::string path = CachePathOf(remote_path);
  const std::string_view inside = std::string_view(path).substr(cache_folder_.size());
  return SafeHostText(socket_.RemoteHost()) && !ClimbsUp(inside) &&
         inside.find('\0') == std::string_view::npos;
}

bool RCFSO::getUpdatedServerFileToTempFolder(std::string_view sRemoteFile,
                                             std::string& sLocalFile) {
  ClearError();
  sLocalFile = CachePathOf(sRemoteFile);
  if (!CachePathStaysInside(sRemoteFile)) {
    SetError(kPathAccessError, std::string(RuntimeErrorText(kPathAccessError).value_or("")) + ": " +
                                   socket_.RemoteHost() + " " + std::string(sRemoteFile));
    LogFailure(err_description_, "RCFSO", kCacheRoutine, 1);
    return false;
  }
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
