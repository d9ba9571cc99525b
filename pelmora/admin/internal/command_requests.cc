// The command request and the extended command exchange.
#include "pelmora/admin/internal/command_requests.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

#include "pelmora/admin/exec_wire.h"
#include "pelmora/admin/internal/exec_client_stream.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin::internal {

bool CommandRequests::SyncCreateProcess(std::string_view command, int32_t timeout) {
  error_.Clear();
  if (command.find_first_not_of(' ') == std::string_view::npos) {
    error_.Set(errors::kEmptyArgument, "Empty command");
    return false;
  }
  if (!channel_.connected()) {
    error_.Set(errors::kNotConnected, "Connection has not established");
    return false;
  }
  // The request is built here rather than by a send-request routine because its second argument
  // is an integer. A failed send shows up as a failed receive below.
  const Channel::Bytes request = BuildCommandRequest(command, timeout);
  (void)channel_.SendAnnouncedBlock(CommandRequestTotal(command), request);
  return AwaitCommandEnd();
}

bool CommandRequests::AwaitCommandEnd() {
  Channel::Bytes data;
  int32_t sequence = 0;
  for (;;) {
    if (!channel_.RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) return false;
    // A reply too short for its kind, or with an output length past its data, is skipped like a
    // reply of an unknown kind.
    const std::optional<CommandReply> reply = ParseCommandReply(data);
    if (!reply) continue;
    if (reply->kind == CommandReplyKind::kOutput) {
      channel_.events().Raise(&RCFSOEvents::CommandOutput, reply->output);
      continue;
    }
    if (reply->kind != CommandReplyKind::kStatus) continue;
    switch (reply->status) {
      case kProcessEndedNormally:
        return true;
      case kProcessNotStarted:
        error_.Set(kProcessNotStarted, "Create process fail");
        return false;
      case kProcessEndedAbnormally:
        error_.Set(kProcessEndedAbnormally, "Process terminated abnormally");
        return false;
      case kProcessTimedOut:
        error_.Set(kProcessTimedOut, "Request time out");
        return false;
      default:
        break;  // other status codes are ignored and the wait goes on
    }
  }
}

int32_t CommandRequests::ExtendedCommandVersion() {
  error_.Clear();
  if (!channel_.SendRequest(kExecHelloCode, ExecHelloArguments(kExecVersion))) return 0;
  if (!channel_.RecvResult()) {
    error_.Clear();  // a service without the extension refuses the unknown request
    return 0;
  }
  const int32_t version = std::max(error_.code(), 0);
  error_.Clear();
  return std::min(version, kExecVersion);
}

bool CommandRequests::RunCommand(const RemoteCommand& command, RemoteCommandIo& io,
                                 ExecExit& exit) {
  error_.Clear();
  if (command.arguments.empty() &&
      command.command_line.find_first_not_of(' ') == std::string::npos) {
    error_.Set(errors::kEmptyArgument, "Empty command");
    return false;
  }
  if (!channel_.SendRequest(kExecRunCode, ExecRequestArguments(command))) return false;
  if (!channel_.RecvResult()) return false;
  using Clock = ExecClientStream::Clock;
  std::optional<Clock::time_point> deadline;
  const int32_t timeout = channel_.timeout();
  if (command.timeout > 0 && timeout > 0) {
    deadline = Clock::now() + std::chrono::milliseconds(int64_t{command.timeout} + timeout);
  }
  ExecClientStream stream(channel_.SocketHandle(), channel_.TlsSession(), io, deadline);
  const int32_t failure = stream.Run(exit);
  if (failure == errors::kInvalidDataSize)
    error_.Set(errors::kInvalidDataSize, "Invalid Data Size");
  if (failure != 0 && failure != errors::kInvalidDataSize) channel_.SetSocketError(failure);
  return failure == 0;
}

}  // namespace pelmora::admin::internal
