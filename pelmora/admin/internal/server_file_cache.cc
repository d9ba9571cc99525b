// The server-file cache's paths and refresh.
#include "pelmora/admin/internal/server_file_cache.h"

#include <string>

#include "pelmora/admin/internal/listing_requests.h"
#include "pelmora/admin/internal/local_file.h"
#include "pelmora/admin/internal/transfers.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/internal/platform.h"

namespace pelmora::admin::internal {
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

std::string ServerFileCache::PathOf(std::string_view remote_path) const {
  const size_t first = remote_path.empty() ? 0 : FirstCharacterLength(remote_path);
  std::string_view rest = remote_path.substr(first);
  rest.remove_prefix(rest.empty() ? 0 : FirstCharacterLength(rest));
  std::string path = folder_ + channel_.RemoteHost() + "/" +
                     std::string(remote_path.substr(0, first)) + "$" + std::string(rest);
  for (size_t i = folder_.size(); i < path.size(); ++i) {
    if (path[i] == '\\') path[i] = '/';
  }
  return path;
}

bool ServerFileCache::StaysInside(std::string_view remote_path) const {
  const std::string path = PathOf(remote_path);
  const std::string_view inside = std::string_view(path).substr(folder_.size());
  return SafeHostText(channel_.RemoteHost()) && !ClimbsUp(inside) &&
         inside.find('\0') == std::string_view::npos;
}

bool ServerFileCache::Refresh(std::string_view remote_path, std::string& local_path) {
  error_.Clear();
  local_path = PathOf(remote_path);
  if (!StaysInside(remote_path)) {
    error_.Set(kPathAccessError, std::string(RuntimeErrorText(kPathAccessError).value_or("")) +
                                     ": " + channel_.RemoteHost() + " " + std::string(remote_path));
    LogFailure(error_.description(), "RCFSO", kCacheRoutine, 1);
    return false;
  }
  const std::string remote(remote_path);
  pelmora::internal::CreateFolderPath(local_path);
  Transfers transfers(channel_);
  if (!IsRegularFile(local_path) && !transfers.Download(local_path, remote)) {
    LogFailure("Cannot get " + remote + " from server", "OrvSettingReader", kCacheRoutine, 1);
    return false;
  }
  RCFileInfo info;
  if (!ListingRequests(channel_).GetFileInfo(remote, info)) {
    LogFailure("cannot access remote " + remote, "RCFSO", kCacheRoutine, 1);
    return false;
  }
  const std::optional<int64_t> cached = LastWriteSeconds(local_path);
  if (cached && Date::FromUnixTime(*cached) == info.LastWriteTime()) return true;
  if (transfers.Download(local_path, remote)) return true;
  LogFailure("Cannot get " + remote + " from server", "RCFSO", kCacheRoutine, 1);
  return false;
}

}  // namespace pelmora::admin::internal
