// Reading the library's day log files back for `pelmora log tail`.
//
//   DayLogLines("/opt/pelmora/Log", "20090314", false)
//     // every line of 200903/*20090314.log and *.err, in time order
#ifndef TOOLS_PELMORA_LOG_LINES_H_
#define TOOLS_PELMORA_LOG_LINES_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace pelmora_tool {

// The folder of the tool's logs: $PELMORA_LOG_ROOT when set; else the folder beside the library
// (<library folder>/../Log) when it exists and this user may write there; else $XDG_STATE_HOME/pelmora/log or
// ~/.local/state/pelmora/log; else a folder under the temporary folder. Does not create it.
std::string ToolLogRoot();

// This user's folder for files fetched from servers: $XDG_CACHE_HOME/pelmora, else
// ~/.cache/pelmora, else a folder under the temporary folder named after the user id. Creates it
// with mode 700 (and narrows an existing one to 700). Quietly does nothing when it cannot: the
// fetch into it then fails with the system's error.
std::string MakeToolCacheRoot();

// Creates `root` when it is missing, so that the library's log writer (which never creates its
// root) can write there. Quietly does nothing when it cannot.
void MakeLogRoot(const std::string& root);

// The most bytes read from the end of one log file; earlier lines of a larger file are skipped.
inline constexpr std::uintmax_t kMostLogBytes = 64u << 20;

// The lines of the day `day` (YYYYMMDD) under `root`: every file in root/YYYYMM whose name ends
// with YYYYMMDD.err or (unless `errors_only`) YYYYMMDD.log, with or without a prefix. Lines lose
// their CR LF and are merged by their leading time stamp, lines of the same second keeping the
// order of their files. A missing folder gives no lines. Reads the files; never throws.
std::vector<std::string> DayLogLines(const std::string& root, const std::string& day,
                                     bool errors_only);

// Follows the day files under a log folder as they grow (`pelmora log tail -f`), on to the next
// day's files when the day changes. Lines come complete (a line still being written waits for
// its line end), merged by time stamp within one reading.
//
//   LogFollower follower(root, false, [] { return Today(); });
//   follower.Poll();                         // the day's lines so far
//   for (;;) for (auto& line : follower.Poll()) puts(line.c_str());   // those written since
class LogFollower {
 public:
  // `today` gives the current day as YYYYMMDD; it is asked on every Poll.
  LogFollower(std::string root, bool errors_only, std::function<std::string()> today);

  // The complete lines added since the last call (the first call: all the day's lines). When the day has changed, the last lines of
  // the old day's files come first, then the new day's from their beginning. A file that shrank
  // is read again from its start. At most kMostLogBytes of one file per call. Never throws.
  std::vector<std::string> Poll();

 private:
  std::vector<std::string> ReadNew();

  std::string root_;
  bool errors_only_;
  std::function<std::string()> today_;
  std::string day_;
  std::map<std::string, std::uintmax_t> read_;  // bytes of each day file already returned
};

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_LOG_LINES_H_
