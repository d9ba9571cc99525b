// The dispatch table: for each request code its family's handler and the form in which a refusal
// is answered; the handlers' checks on path arguments and their audit lines.
#include <asio/use_awaitable.hpp>
#include <optional>

#include "pelmora/admin/exec_wire.h"
#include "pelmora/admin/mode_wire.h"
#include "pelmora/admin/resume_wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmorad/audit.h"
#include "pelmorad/session.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;
using pelmora::admin::RequestCode;

namespace {

// How a request is refused: the reply the client waits for in place of a success.
enum class Refusal {
  kResult,          // a result reply with the error
  kGoReply,         // upload: the header is read, then "no"
  kTransferHeader,  // download: a header of size -1
  kSizeMessage,     // a size message of -1
  kEmptyText,       // an empty message
  kCommandStatus,   // a command's "not started" status
};

using Handler = asio::awaitable<bool> (*)(RequestScope&, const RequestBlock&);

struct Route {
  uint8_t code;
  Handler handle;
  Refusal refusal;
};

constexpr uint8_t Code(RequestCode code) { return static_cast<uint8_t>(code); }

const Route kRoutes[] = {
    {Code(RequestCode::kUpload), HandleUpload, Refusal::kGoReply},
    {Code(RequestCode::kDownload), HandleDownload, Refusal::kTransferHeader},
    {Code(RequestCode::kGetFileInfo), HandleFileInfo, Refusal::kSizeMessage},
    {Code(RequestCode::kGetFolderFiles), HandleListing, Refusal::kSizeMessage},
    {Code(RequestCode::kFileExists), HandleFileRequest, Refusal::kResult},
    {Code(RequestCode::kFolderExists), HandleFileRequest, Refusal::kResult},
    {Code(RequestCode::kCreateRemoteFile), HandleFileRequest, Refusal::kResult},
    {Code(RequestCode::kCreateRemoteFolder), HandleFileRequest, Refusal::kResult},
    {Code(RequestCode::kDeleteRemoteFile), HandleFileRequest, Refusal::kResult},
    {Code(RequestCode::kDeleteRemoteFolder), HandleFileRequest, Refusal::kResult},
    {Code(RequestCode::kCopyRemoteFile), HandleCopy, Refusal::kResult},
    {Code(RequestCode::kCopyRemoteFolder), HandleCopy, Refusal::kResult},
    {Code(RequestCode::kMoveRemoteFile), HandleCopy, Refusal::kResult},
    {Code(RequestCode::kGetPathWithKey), HandlePathWithKey, Refusal::kSizeMessage},
    {Code(RequestCode::kGetPrintQ), HandlePrintQueue, Refusal::kSizeMessage},
    {Code(RequestCode::kIsSameMachineWithSvr), HandleSameMachine, Refusal::kResult},
    {Code(RequestCode::kGetFileVersion), HandleFileVersion, Refusal::kEmptyText},
    {Code(RequestCode::kGetSystemDirectory), HandleText, Refusal::kEmptyText},
    {Code(RequestCode::kSyncCreateProcess), HandleCommand, Refusal::kCommandStatus},
    {Code(RequestCode::kGetSystemTime), HandleText, Refusal::kEmptyText},
    {pelmora::admin::kExecHelloCode, HandleExec, Refusal::kResult},
    {pelmora::admin::kExecRunCode, HandleExec, Refusal::kResult},
    {pelmora::admin::kModeGetCode, HandleMode, Refusal::kResult},
    {pelmora::admin::kModeSetCode, HandleMode, Refusal::kResult},
    {pelmora::admin::kResumeCode, HandleResume, Refusal::kTransferHeader},
};

// The route of `code`; nullptr for a code the service does not serve.
const Route* FindRoute(uint8_t code) {
  for (const Route& route : kRoutes) {
    if (route.code == code) return &route;
  }
  return nullptr;
}

}  // namespace

asio::awaitable<bool> Session::Dispatch(const RequestBlock& block) {
  RequestScope request{channel_,
                       *runtime_,
                       *account_,
                       context_.pool,
                       context_.running_commands,
                       command_group_,
                       peer_,
                       connection_.peer.address()};
  const Route* route = FindRoute(block.code);
  if (route == nullptr) {
    AuditRequest(block.code, "unknown request", kInvalidFunction);
    co_return co_await channel_.SendResult(kInvalidFunction);
  }
  co_return co_await route->handle(request, block);
}

asio::awaitable<bool> Refuse(SessionChannel& channel, const RequestBlock& block, int32_t error,
                             bool watch_for_tls) {
  const Route* route = FindRoute(block.code);
  switch (route != nullptr ? route->refusal : Refusal::kResult) {
    case Refusal::kGoReply: {
      std::optional<SessionChannel::Message> header = co_await channel.ReadMessage(watch_for_tls);
      co_return header&& co_await channel.SendMessage(pelmora::admin::BuildGoReply(false));
    }
    case Refusal::kTransferHeader: {
      pelmora::admin::TransferHeader refused;
      refused.size = -1;
      co_return co_await channel.SendMessage(pelmora::admin::BuildTransferHeader(refused));
    }
    case Refusal::kSizeMessage:
      co_return co_await channel.SendMessage(pelmora::admin::BuildSizeMessage(-1));
    case Refusal::kEmptyText:
      co_return co_await channel.SendMessage({});
    case Refusal::kCommandStatus:
      co_return co_await channel.SendMessage(
          pelmora::admin::BuildCommandStatusReply(pelmora::admin::kProcessNotStarted));
    case Refusal::kResult:
      break;
  }
  co_return co_await channel.SendResult(error);
}

Target RequestScope::ResolveArgument(const RequestBlock& block, std::size_t index,
                                     bool write) const {
  Target target;
  if (index >= block.args.size()) {
    target.error = kInvalidParameter;
    return target;
  }
  target.text = pelmora::admin::DecodeUnicodeArgument(block.args[index]);
  PathResult parsed = ParseDrivePath(target.text, static_cast<std::size_t>(limits().path_length));
  if (!parsed.path) {
    target.error = parsed.error;
    return target;
  }
  target.path = *parsed.path;
  if (!runtime.drives->IsMapped(target.path.drive)) {
    target.error = kPathNotFound;
  } else if (!account.MayUseDrive(target.path.drive) ||
             (write && (account.read_only || !runtime.MayChangeTasks(account, target.path)))) {
    target.error = kAccessDenied;
  }
  return target;
}

bool RequestScope::FlagArgument(const RequestBlock& block, std::size_t index) {
  return index < block.args.size() &&
         pelmora::admin::DecodeUnicodeArgument(block.args[index]) == "TRUE";
}

void RequestScope::Audit(int code, const std::string& path, int32_t result) const {
  pelmorad::Audit({peer, account.name, code, path, result});
}

}  // namespace pelmorad
