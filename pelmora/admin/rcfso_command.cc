// RCFSO's remote command: the command request (code 20) and the wait for its end, passing each
// output reply on as a CommandOutput event.
#include <string>

#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin {

bool RCFSO::SyncCreateProcess(std::string_view command, int32_t lTimeout) {
  ClearError();
  if (command.find_first_not_of(' ') == std::string_view::npos) {
    SetError(errors::kEmptyArgument, "Empty command");
    return false;
  }
  if (!connected_) {
    SetError(errors::kNotConnected, "Connection has not established");
    return false;
  }
  // The request is built here rather than by a send-request routine because its second argument
  // is an integer. A failed send shows up as a failed receive below.
  const Bytes request = BuildCommandRequest(command, lTimeout);
  (void)SendAnnouncedBlock(CommandRequestTotal(command), request);
  return AwaitCommandEnd();
}

bool RCFSO::AwaitCommandEnd() {
  Bytes data;
  int32_t sequence = 0;
  for (;;) {
    if (!RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) return false;
    // A reply too short for its kind, or with an output length past its data, is skipped like a
    // reply of an unknown kind.
    const std::optional<CommandReply> reply = ParseCommandReply(data);
    if (!reply) continue;
    if (reply->kind == CommandReplyKind::kOutput) {
      RaiseEvent(&RCFSOEvents::CommandOutput, reply->output);
      continue;
    }
    if (reply->kind != CommandReplyKind::kStatus) continue;
    switch (reply->status) {
      case kProcessEndedNormally:
        return true;
      case kProcessNotStarted:
        SetError(kProcessNotStarted, "Create process fail");
        return false;
      case kProcessEndedAbnormally:
        SetError(kProcessEndedAbnormally, "Process terminated abnormally");
        return false;
      case kProcessTimedOut:
        SetError(kProcessTimedOut, "Request time out");
        return false;
      default:
        break;  // other status codes are ignored and the wait goes on
    }
  }
}

}  // namespace pelmora::admin
