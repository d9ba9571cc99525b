// The administration client's folder listing and file information requests (codes 4 and 3).
// RCFSO's GetFolderFiles and GetFileInfo forward here; their error numbers and texts are
// documented in pelmora/admin/rcfso.h.
//
// A listing's length comes from the network: its bytes are read in bounded pieces and parsed as
// they arrive (ListingReader), so memory follows the entries actually received. A malformed
// listing or record is still read to its announced end, so the session stays in step.
//
//   RCFileInfo info;
//   if (ListingRequests(channel).GetFileInfo("C:\\Data\\a.txt", info)) Use(info.Size());
#ifndef PELMORA_ADMIN_INTERNAL_LISTING_REQUESTS_H_
#define PELMORA_ADMIN_INTERNAL_LISTING_REQUESTS_H_

#include <string_view>

#include "pelmora/admin/internal/channel.h"
#include "pelmora/admin/rc_file_info.h"

namespace pelmora::admin::internal {

class ListingRequests : private RequestFamily {
 public:
  using RequestFamily::RequestFamily;

  RCFileInfoCollection GetFolderFiles(std::string_view folder);
  bool GetFileInfo(std::string_view file, RCFileInfo& info);

 private:
  void RefuseMalformed(std::string_view routine);
};

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_LISTING_REQUESTS_H_
