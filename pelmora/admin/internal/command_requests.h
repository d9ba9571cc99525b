// The administration client's remote commands: the command request (code 20) with its output
// replies and end status, and the extended exchange (requests 40 and 41) whose stream phase
// ExecClientStream drives. RCFSO's SyncCreateProcess, ExtendedCommandVersion and RunCommand
// forward here; their error numbers and texts are documented in pelmora/admin/rcfso.h.
//
//   CommandRequests commands(channel);
//   bool ended = commands.SyncCreateProcess("ipconfig", 30000);  // CommandOutput per reply
#ifndef PELMORA_ADMIN_INTERNAL_COMMAND_REQUESTS_H_
#define PELMORA_ADMIN_INTERNAL_COMMAND_REQUESTS_H_

#include <cstdint>
#include <string_view>

#include "pelmora/admin/internal/channel.h"
#include "pelmora/admin/remote_command.h"

namespace pelmora::admin::internal {

class CommandRequests : private RequestFamily {
 public:
  using RequestFamily::RequestFamily;

  bool SyncCreateProcess(std::string_view command, int32_t timeout);
  int32_t ExtendedCommandVersion();
  bool RunCommand(const RemoteCommand& command, RemoteCommandIo& io, ExecExit& exit);

 private:
  // Reads replies until the status reply, raising CommandOutput for each output reply.
  bool AwaitCommandEnd();
};

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_COMMAND_REQUESTS_H_
