// Requests that run programs: command lines (code 20), the print queue (code 14) and the file
// version of a Windows executable (code 18).
#include "pelmora/admin/wire_replies.h"
#include "pelmorad/session.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;

asio::awaitable<bool> Session::HandleCommand(const RequestBlock& block) {
  AuditRequest(block.code, "command lines are not available", kInvalidFunction);
  co_return co_await Refuse(block, kInvalidFunction);
}

asio::awaitable<bool> Session::HandlePrintQueue(const RequestBlock& block) {
  AuditRequest(block.code, "print queue", kSuccess);
  co_return co_await SendSized({});
}

asio::awaitable<bool> Session::HandleFileVersion(const RequestBlock& block) {
  Target target = ResolveArgument(block, 0, false);
  AuditRequest(block.code, target.text, target.error);
  co_return co_await SendMessage({});
}

}  // namespace pelmorad
