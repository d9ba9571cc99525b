// What RCFSO::RunCommand runs and where its streams come from and go: the extended command
// exchange (exec_wire.h), which keeps standard output and standard error apart and byte-exact,
// forwards standard input and reports the exit status or the signal.
//
//   pelmora::admin::RemoteCommand command{.command_line = "tar czf - data", .timeout = 60000};
//   pelmora::admin::RemoteCommandIo io;
//   io.output = [&](std::span<const uint8_t> bytes) { archive.append(bytes); };
//   pelmora::admin::ExecExit exit;
//   if (fso.RunCommand(command, io, exit) && exit.ShellStatus() == 0) { ... }
#ifndef PELMORA_ADMIN_REMOTE_COMMAND_H_
#define PELMORA_ADMIN_REMOTE_COMMAND_H_

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/admin/exec_wire.h"
#include "pelmora/platform/export.h"

namespace pelmora::admin {

// A command line for the service's shell (UTF-8, any character), or an argument vector run
// without a shell when `arguments` is not empty.
using RemoteCommand = ExecRequest;

// The streams of one remote command. Callbacks run on the caller's thread, inside RunCommand; a
// callback that blocks stops the reading of the connection, and the service then holds the
// command's output back (it still applies the time-out).
struct PELMORA_API RemoteCommandIo {
  // Standard input: read from `input_fd` until its end when it is not -1, otherwise `input`.
  int input_fd = -1;
  std::string_view input;
  // Standard output and standard error pieces as they arrive (may be empty functions).
  std::function<void(std::span<const std::uint8_t>)> output;
  std::function<void(std::span<const std::uint8_t>)> error;
  // Output bytes the service may send ahead of the callbacks.
  std::int32_t window = 1024 * 1024;
};

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_REMOTE_COMMAND_H_
