// Killing a process and every process beneath it, found through /proc (the kernel's lists of
// each thread's children) rather than by process group, so that processes that called setsid or
// were reparented after a double fork are reached too. Meant for children started with
// ChildSpec::track_descendants, which keep all that they start beneath them while they run:
//
//   ChildProcess child = ChildProcess::Start({.command_line = line, .track_descendants = true});
//   KillProcessTree(child.pid());   // or child.KillTree()
#ifndef PELMORA_COMMON_PROCESS_TREE_H_
#define PELMORA_COMMON_PROCESS_TREE_H_

#include <sys/types.h>

#include <string_view>
#include <vector>

#include "pelmora/platform/export.h"

namespace pelmora {

// Stops `root` (SIGSTOP), SIGKILLs every live process beneath it (found through
// /proc/PID/task/*/children, again until none is left), then SIGKILLs `root` and its process
// group. Meant for a child started with track_descendants that has not been reaped: a stopped
// subreaper cannot end, so nothing it holds escapes to init while the tree is killed. Blocks for
// the reads of /proc and, while killed processes are still ending, at most a quarter of a second
// in all; what still runs then (a process stuck in the kernel) is left to die of its SIGKILL.
PELMORA_API void KillProcessTree(pid_t root);

// The process numbers in `text`, the contents of a /proc/PID/task/TID/children file ("12 345 "):
// decimal numbers separated by spaces or newlines. Anything else ends the list.
PELMORA_API std::vector<pid_t> ParseChildList(std::string_view text);

}  // namespace pelmora

#endif  // PELMORA_COMMON_PROCESS_TREE_H_
