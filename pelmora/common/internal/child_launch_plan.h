// A child process's launch plan, prepared in the parent before the vfork: the identity the child
// takes (the user named for it when the caller is root, otherwise the current one), its clean
// environment, its working folder, and the argument and environment arrays execve gets.
#ifndef PELMORA_COMMON_INTERNAL_CHILD_LAUNCH_PLAN_H_
#define PELMORA_COMMON_INTERNAL_CHILD_LAUNCH_PLAN_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "pelmora/common/child_process.h"

namespace pelmora::internal {

// The user the child runs as, from the password database.
struct Identity {
  bool change = false;  // setgroups/setgid/setuid in the child
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
  std::string name;
  std::string home;
  std::string shell;
};

// Everything the child needs, prepared before the fork.
struct LaunchPlan {
  Identity identity;
  std::string folder;
  bool folder_given = false;  // otherwise a home folder that cannot be entered falls back to "/"
  bool subreaper = false;
  std::vector<std::string> strings;  // the arguments (shell, "-c", command line), then the environment
  std::vector<char*> argv;
  std::vector<char*> envp;
};

// The plan for `launch`. Raises pelmora::Error 1326 (source "ChildProcess") when the caller is
// root and `run_as` names no user. Blocks only for the password and group database look-ups.
LaunchPlan MakePlan(const ChildSpec& launch);

// `name` looked up in the child's PATH when it has no '/'; unchanged when no entry has it (the
// exec then fails with "cannot find the file").
std::string FindProgramOnPath(const std::string& name);

}  // namespace pelmora::internal

#endif  // PELMORA_COMMON_INTERNAL_CHILD_LAUNCH_PLAN_H_
