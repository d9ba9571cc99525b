// The administration client's cache of server files: where a server file is kept locally and the
// refresh that downloads it when missing or when its last-write time differs from the server's.
// RCFSO's getUpdatedServerFileToTempFolder forwards here; its error numbers and texts are
// documented in pelmora/admin/rcfso.h.
//
// A remote file D:\Data\shop.ini of the server reached as "srv01" is cached at
// <cache folder>srv01/D$/Data/shop.ini. The host text and the remote path come from callers and
// servers: a host text or path that would name anything outside the cache folder is refused
// before anything is written (its path is still handed back, as for every other outcome).
//
//   std::string local;
//   if (ServerFileCache(channel, cache_folder).Refresh("D:\\Data\\shop.ini", local)) Read(local);
#ifndef PELMORA_ADMIN_INTERNAL_SERVER_FILE_CACHE_H_
#define PELMORA_ADMIN_INTERNAL_SERVER_FILE_CACHE_H_

#include <string>
#include <string_view>

#include "pelmora/admin/internal/channel.h"

namespace pelmora::admin::internal {

class ServerFileCache : private RequestFamily {
 public:
  // `folder` ends in '/'.
  ServerFileCache(Channel& channel, const std::string& folder)
      : RequestFamily(channel), folder_(folder) {}

  // The cache path of `remote_path`: the folder, the host text, "/", the first character, "$",
  // the path from its third character on, "\" turned into "/".
  std::string PathOf(std::string_view remote_path) const;
  // Makes sure the cache holds a current copy of `remote_path`; its cache path in `local_path`
  // whatever the outcome.
  bool Refresh(std::string_view remote_path, std::string& local_path);

 private:
  bool StaysInside(std::string_view remote_path) const;

  const std::string& folder_;
};

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_SERVER_FILE_CACHE_H_
