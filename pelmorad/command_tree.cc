#include "pelmorad/command_tree.h"

#include <utility>

#include "pelmora/common/process_tree.h"

namespace pelmorad {

pelmora::ChildSpec TrackedCommand(const std::string& shell, std::string command_line) {
  pelmora::ChildSpec launch;
  launch.command_line = std::move(command_line);
  launch.shell = shell;
  launch.track_descendants = true;
  return launch;
}

pelmora::ChildSpec TrackedArguments(std::vector<std::string> arguments) {
  pelmora::ChildSpec launch;
  launch.arguments = std::move(arguments);
  launch.track_descendants = true;
  return launch;
}

void KillProcessTree(pid_t root) { pelmora::KillProcessTree(root); }

void KillCommandTree(pelmora::ChildProcess& child) { child.KillTree(); }

}  // namespace pelmorad
