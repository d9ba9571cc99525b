// The reports of a fleet run: each host's record, live line prefixes, --group blocks, --gather
// blocks, --json lines, the summary table, --output-dir files and the --failed-file list.
//
//   LinePrefixer live("web01: ");
//   console.Out(live.Feed("a\nb"));   // "web01: a\n" (the "b" waits for its line end)
//   console.Out(live.Flush());        // "web01: b\n"
//   console.Out(SummaryTable(records, elapsed));
#ifndef TOOLS_PELMORA_FLEET_REPORT_H_
#define TOOLS_PELMORA_FLEET_REPORT_H_

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/pelmora/admin_session.h"
#include "tools/pelmora/host_list.h"

namespace pelmora_tool {

// What one host of a fleet run did.
struct HostRecord {
  HostTarget target{};
  int32_t port = 0;       // the port used (the target's, else the command line's)
  bool finished = false;  // false: still running when the overall time-out expired
  int status = 0;         // the host's exit status (admin_session.h)
  // exec: the remote command's status; unknown when the service cannot report it.
  std::optional<int> remote_status{};
  bool remote_status_unknown = false;
  std::optional<HostFailure> failure{};
  std::string output{};   // kept only when a report needs it
  std::string fingerprint{};  // the certificate the host presented over TLS, "" on plain
  double seconds = 0;

  // "ok", "failed" or "timed out".
  std::string Result() const;
  bool Ok() const { return finished && status == kExitOk; }
};

// Turns output text, in any chunking, into whole lines that start with `prefix`.
class LinePrefixer {
 public:
  explicit LinePrefixer(std::string prefix) : prefix_(std::move(prefix)) {}
  // The complete lines that `text` finishes, each prefixed; a partial line is held back.
  std::string Feed(std::string_view text);
  // The held partial line with a line end, or "" when none is held.
  std::string Flush();

 private:
  std::string prefix_;
  std::string partial_;
};

// One host's block for --group: "=== host ===" then its output (ending in a line end).
std::string GroupBlock(const HostRecord& record);

// The --gather report: hosts whose output and failure are identical share one block, headed
// by their folded names and their count, in the order of each block's first host.
std::string GatherBlocks(const std::vector<HostRecord>& records);

// One --json line (a JSON object and a line end):
// {"host","port","status","remote_status","result","seconds","output",
//  "error":null|{"number","description"}}; remote_status is exec's remote status, "unknown"
// when the service cannot report it, null otherwise; over TLS also "fingerprint" (the
// certificate the host presented, "SHA256:...").
// Bytes that are not UTF-8 are replaced.
std::string JsonLine(const HostRecord& record);

// The summary table (host, result, exit status, time, error) and a totals line.
std::string SummaryTable(const std::vector<HostRecord>& records,
                         std::chrono::duration<double> elapsed);

// Writes `record`'s output to DIR/<host> and its failure line to DIR/<host>.err (only when it
// failed). Throws CommandError when a file cannot be written.
void WriteOutputFiles(const std::string& dir, const HostRecord& record);

// Writes the hosts that did not succeed, one per line (with their ports where given), to
// `path`, ready for --hosts-file. Throws CommandError when it cannot be written.
void WriteFailedFile(const std::string& path, const std::vector<HostRecord>& records);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_FLEET_REPORT_H_
