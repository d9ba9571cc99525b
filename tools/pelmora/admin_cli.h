// The command line of `pelmora admin`, shared by the file that parses its global and fleet
// options (admin_command.cc) and the file that adds its commands (admin_leaves.cc).
#ifndef TOOLS_PELMORA_ADMIN_CLI_H_
#define TOOLS_PELMORA_ADMIN_CLI_H_

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/pelmora/admin_session.h"
#include "tools/pelmora/commands.h"
#include "tools/pelmora/fleet.h"
#include "tools/pelmora/host_defaults.h"
#include "tools/pelmora/tls_options.h"

namespace pelmora_tool {

// The global and fleet options of `pelmora admin`.
struct AdminCli {
  AdminOptions options;
  std::string hosts;
  bool hosts_given = false;  // --hosts appeared, even with an empty list
  std::string hosts_file;
  FleetOptions fleet;
  std::string password_trap;
  TlsFlags tls;
  // Which of --host, --account and --port appeared (the rest come from the environment).
  bool host_given = false;
  bool account_given = false;
  bool port_given = false;
  OptionFlags options_given;  // which other options appeared (the rest may come from the file)

  bool IsFleet() const { return hosts_given || !hosts_file.empty(); }
};

// The arguments of one admin command (each command uses the fields it needs).
struct LeafArgs {
  std::string first;
  std::string second;
  std::vector<std::string> words;
  int32_t timeout_ms = 60000;
  bool recursive = false;
  bool overwrite = false;
  bool unicode = false;
  bool long_form = false;
  bool no_input = false;  // exec -n
  bool resume = false;
  bool human = false;
  bool json = false;
};

// Builds a command's request from its parsed arguments.
using RequestMaker = std::function<HostRequest(const LeafArgs&)>;

// Runs `request` on the host or the fleet that `cli` names: reads the secrets, parses the host
// list, and reports. Returns the exit status; usage and credential problems print
// "pelmora: <reason>" and give 2. Blocks until every host is done (or the overall time-out).
int RunAdmin(const AdminCli& cli, HostRequest request, bool needs_access_code);

// Adds the admin command `name`; after parsing, its action runs the request that `make` builds
// from `args` (which the caller fills through options on the returned command).
CLI::App* AddAdminLeaf(CLI::App& admin, CommandAction& action,
                       const std::shared_ptr<AdminCli>& cli, const std::string& name,
                       const std::string& help, RequestMaker make,
                       const std::shared_ptr<LeafArgs>& args, bool needs_access_code = false);

// Adds every admin command (exec, time, approot, ..., touch) to `admin`.
void AddAdminLeaves(CLI::App& admin, CommandAction& action, const std::shared_ptr<AdminCli>& cli);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_ADMIN_CLI_H_
