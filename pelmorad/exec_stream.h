// The stream phase of the extended command exchange on the service's side: one loop on a thread
// of its own that moves the client's standard input into the command, the command's standard
// output and standard error to the client within the client's window, enforces the time-out and
// ends with the exit frame. The loop never reads a byte past the client's done frame, so the
// session reads the next request where the exchange left it.
//
//   ExecStreamResult result = RunExecStream(socket_fd, child, {.timeout_ms = 5000});
#ifndef PELMORAD_EXEC_STREAM_H_
#define PELMORAD_EXEC_STREAM_H_

#include <cstdint>

#include "pelmora/admin/exec_wire.h"
#include "pelmora/common/child_process.h"

namespace pelmorad {

struct ExecStreamLimits {
  int32_t timeout_ms = 0;  // the command's time-out; 0 or less: none
  // How long the loop waits, once the exit frame is queued, for the client to take it and send
  // its done frame, and how long output is still forwarded after the command has exited.
  int32_t finish_ms = 300000;
  int32_t drain_ms = 1000;
};

struct ExecStreamResult {
  // The client took the exit frame and sent its done frame: the session goes on.
  bool in_step = false;
  // The client went away or broke the protocol (the process group was killed).
  bool client_gone = false;
  pelmora::admin::ExecExit exit;
};

// Runs the stream phase on `socket_fd` (a descriptor of the session's socket, used with
// non-blocking calls only) for the started `child` (separate_streams). Kills the child's process
// group at the time-out, when the client cancels (a done frame before the exit), goes or breaks
// the protocol. Blocks until the phase ends; every wait is bounded by the limits above once the
// command has exited.
ExecStreamResult RunExecStream(int socket_fd, pelmora::ChildProcess& child,
                               const ExecStreamLimits& limits);

}  // namespace pelmorad

#endif  // PELMORAD_EXEC_STREAM_H_
