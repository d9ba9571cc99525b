// Every process a command starts, however it detaches: each command's shell (or program, for an
// argument vector) is started as a child subreaper (ChildSpec::track_descendants), so a process
// that calls setsid or double-forks is reparented to it instead of to init. While the command
// runs the whole tree hangs below its first process, and KillCommandTree stops that process and
// kills the tree beneath it before the process itself.
//
//   pelmora::ChildSpec launch = TrackedCommand(shell, line);   // then ChildProcess::Start(launch)
//   KillCommandTree(child);                                    // time-out, client gone, shutdown
#ifndef PELMORAD_COMMAND_TREE_H_
#define PELMORAD_COMMAND_TREE_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "pelmora/common/child_process.h"

namespace pelmorad {

// A launch of `command_line` under `shell -c` that keeps its descendants beneath it.
pelmora::ChildSpec TrackedCommand(const std::string& shell, std::string command_line);

// A launch of the argument vector `arguments` (its program found as ChildProcess finds it), run
// without a shell, that keeps its descendants beneath it.
pelmora::ChildSpec TrackedArguments(std::vector<std::string> arguments);

// SIGKILLs every live process beneath `root`, then `root` and its process group
// (pelmora::KillProcessTree). Blocks as that does.
void KillProcessTree(pid_t root);

// KillProcessTree for a started child; nothing once the caller has reaped it (its number could be
// another process's by then).
void KillCommandTree(pelmora::ChildProcess& child);

}  // namespace pelmorad

#endif  // PELMORAD_COMMAND_TREE_H_
