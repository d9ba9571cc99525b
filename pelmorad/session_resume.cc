// The download from an offset (code 44, version 3 of the extended exchange): the plain download
// exchange, with the same checks and the same size message for the whole file, whose content
// starts at the offset the client asked for. A malformed request is refused as a download is,
// with size -1, and audited with 87.
#include <optional>

#include "pelmora/admin/resume_wire.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

asio::awaitable<bool> HandleResume(RequestScope& request, const pelmora::admin::RequestBlock& block) {
  std::optional<pelmora::admin::ResumeRequest> parsed = pelmora::admin::ParseResumeRequest(block);
  if (!parsed) {
    Target malformed;
    malformed.error = kInvalidParameter;
    co_return co_await SendDownload(request, block.code, malformed, 0);
  }
  co_return co_await SendDownload(request, block.code, request.ResolveArgument(block, 0, false),
                                  parsed->offset);
}

}  // namespace pelmorad
