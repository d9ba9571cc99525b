// Every process a command starts, however it detaches: the service runs each command line under
// a small keeper (`pelmorad-keeper -c LINE`, installed beside pelmorad, with the real shell named
// in its environment) that marks itself a child subreaper, runs the shell and reaps whatever
// ends beneath it. A process that calls setsid or double-forks is reparented to the
// keeper instead of to init, so while the keeper lives the whole tree hangs below it, and
// KillCommandTree kills that tree before the keeper's process group.
//
//   pelmora::ChildSpec launch = KeptCommand(shell, line);   // then ChildProcess::Start(launch)
//   KillCommandTree(child);                                 // time-out, client gone, shutdown
#ifndef PELMORAD_COMMAND_TREE_H_
#define PELMORAD_COMMAND_TREE_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "pelmora/common/child_process.h"

namespace pelmorad {

// The environment variable that names the real shell to the keeper.
inline constexpr char kKeeperShellVariable[] = "PELMORAD_COMMAND_SHELL";
// The keeper's file name, looked for in the service binary's folder.
inline constexpr char kKeeperName[] = "pelmorad-keeper";

// Looks for the keeper beside the running service's binary (call once at start, before any
// thread).
void FindKeeper();
// True when FindKeeper found it.
bool KeeperFound();

// A launch of `command_line` under `shell -c` through the keeper. Without a keeper (FindKeeper
// found none) the shell is started directly.
pelmora::ChildSpec KeptCommand(const std::string& shell, std::string command_line);

// A launch of the argument vector `arguments` (its program found as ChildProcess finds it) through
// the keeper, run without a shell. Without a keeper the arguments are started directly.
pelmora::ChildSpec KeptArguments(std::vector<std::string> arguments);

// Starts a launch made by KeptCommand or KeptArguments. Raises what ChildProcess::Start raises, and
// also 2 (no such program) or 5 (not executable) for the real shell or program, as a direct start
// would: the keeper itself always starts. Blocks for the fork and exec.
pelmora::ChildProcess StartKept(const pelmora::ChildSpec& launch);

// SIGKILLs every live process beneath `root` (read from /proc, again until none is left, at most
// a bounded number of rounds), then `root`'s process group. Never blocks beyond the /proc reads.
void KillProcessTree(pid_t root);

// KillProcessTree for a started child; the caller must not have reaped it (its number could be
// another process's by then).
void KillCommandTree(pelmora::ChildProcess& child);

}  // namespace pelmorad

#endif  // PELMORAD_COMMAND_TREE_H_
