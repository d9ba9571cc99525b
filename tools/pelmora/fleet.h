// Fleet fan-out: one admin command on many hosts at once, each host on its own thread with its
// own objects, at most --parallel hosts at a time.
//
// Live output is the default: each line of a host is printed, prefixed with the host, as soon as
// it is complete. --group prints each host's output as one block when the host finishes,
// --gather prints hosts with identical output once at the end, --json prints one JSON object per
// host as it finishes, --output-dir writes each host's output to its own file. A summary table
// follows (not with --json); --failed-file lists the hosts that did not succeed. A host still
// running when the overall time-out expires counts as timed out and is left behind.
//
//   FleetOptions fleet;
//   fleet.hosts = ParseHostList("web[01-40]");
//   FleetOutcome outcome = RunFleet(fleet, runner, console);
//   return outcome.status;
#ifndef TOOLS_PELMORA_FLEET_H_
#define TOOLS_PELMORA_FLEET_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/pelmora/admin_session.h"
#include "tools/pelmora/fleet_report.h"
#include "tools/pelmora/host_list.h"
#include "tools/pelmora/progress.h"

namespace pelmora_tool {

// How a fleet run reports.
struct FleetOptions {
  std::vector<HostTarget> hosts;
  int32_t default_port = pelmora::admin::kServicePort;
  int parallel = 16;
  bool group = false;
  bool gather = false;
  bool json = false;
  std::string output_dir;
  std::string failed_file;
  int32_t overall_timeout_ms = 0;  // 0: no overall limit
  bool quiet = false;              // no summary table
};

// Runs the command on one host, writing to `output`; returns the host's exit status. Called on
// the host's own thread. It must hold only what it owns or shares: it may outlive RunFleet when
// the overall time-out leaves it behind.
using HostRunner = std::function<int(const HostTarget& target, HostOutput& output)>;

// The end of a fleet run.
struct FleetOutcome {
  int status = 0;              // 0 when every host succeeded, otherwise 1
  std::size_t abandoned = 0;   // hosts still running when the overall time-out expired
  std::vector<HostRecord> records;
};

// Runs `runner` on every host and writes the reports to `console` (and to the files that the
// options name). Throws CommandError when --output-dir cannot be created or a report file cannot
// be written. Blocks until every host is done or the overall time-out expires; the threads of
// hosts still running then stay behind (the caller should end the process soon).
FleetOutcome RunFleet(const FleetOptions& options, HostRunner runner, Console& console);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_FLEET_H_
