// `pelmora log tail`: the day's log lines of the library, so that a user can see what failed.
//
//   pelmora log tail [--root DIR] [-n LINES] [--date YYYYMMDD] [--errors]
//
// The library writes its lines to DIR/yyyymm/yyyymmdd.log (information) and .err (errors and
// warnings), and the block-message client and the common routines to DIR/yyyymm/<prefix>
// yyyymmdd.log/.err. DIR is --root, else the tool's log folder (ToolLogRoot in log_lines.h), where
// the admin commands have the library write. Every file of the day is read, its lines merged in
// time order (each line starts with its time stamp), and the last LINES are printed. -f then
// keeps printing the lines written to the day's files, and to the next day's after midnight,
// until interrupted. Exit status: 0, also when there is no log yet; 2 for a bad date.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "pelmora/common/system.h"
#include "tools/pelmora/commands.h"
#include "tools/pelmora/log_lines.h"

namespace pelmora_tool {
namespace {

struct LogTailOptions {
  std::string root;
  std::string date;
  int lines = 20;
  bool errors_only = false;
  bool follow = false;
};

constexpr std::chrono::milliseconds kFollowInterval(250);

std::string Today() { return pelmora::CurrentLocalTime().Format("yyyymmdd"); }

// Prints the last `count` lines of the day, then the lines added to the day's files as they
// come, on to the next day's; never returns (an interrupt or a closed output ends the process).
[[noreturn]] void Follow(const std::string& root, bool errors_only, size_t count) {
  LogFollower follower(root, errors_only, &Today);
  std::vector<std::string> backlog = follower.Poll();
  size_t first = backlog.size() > count ? backlog.size() - count : 0;
  for (size_t i = first; i < backlog.size(); ++i) std::printf("%s\n", backlog[i].c_str());
  for (;;) {
    std::vector<std::string> lines = follower.Poll();
    for (const std::string& line : lines) std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    if (lines.empty()) std::this_thread::sleep_for(kFollowInterval);
  }
}

int LogTail(const LogTailOptions& o) {
  std::string root = o.root.empty() ? ToolLogRoot() : o.root;
  if (o.follow && !o.date.empty()) {
    std::fprintf(stderr, "pelmora: log tail: -f follows today's files: leave out --date\n");
    return 2;
  }
  std::string day = o.date.empty() ? Today() : o.date;
  if (o.follow) Follow(root, o.errors_only, static_cast<size_t>(o.lines));
  if (day.size() != 8 || !std::all_of(day.begin(), day.end(), ::isdigit)) {
    std::fprintf(stderr, "pelmora: log tail: the date must be YYYYMMDD, not \"%s\"\n", day.c_str());
    return 2;
  }
  std::vector<std::string> lines = DayLogLines(root, day, o.errors_only);
  size_t first = lines.size() > static_cast<size_t>(o.lines) ? lines.size() - o.lines : 0;
  if (lines.empty()) {
    std::fprintf(stderr, "pelmora: log tail: no log lines for %s under %s\n", day.c_str(),
                 root.c_str());
  }
  for (size_t i = first; i < lines.size(); ++i) std::printf("%s\n", lines[i].c_str());
  return 0;
}

}  // namespace

void AddLogCommand(CLI::App& app, CommandAction& action) {
  CLI::App* log = app.add_subcommand("log", "The library's log files");
  log->require_subcommand(1);
  CLI::App* tail = log->add_subcommand("tail", "The day's last log lines, in time order");
  auto o = std::make_shared<LogTailOptions>();
  tail->add_option("--root", o->root,
                   "Log folder (default: $PELMORA_LOG_ROOT, <library folder>/../Log when it "
                   "exists, else ~/.local/state/pelmora/log)");
  tail->add_option("-n,--lines", o->lines, "How many lines")->capture_default_str()
      ->check(CLI::PositiveNumber);
  tail->add_option("--date", o->date, "Day to show, YYYYMMDD (default: today)");
  tail->add_flag("--errors", o->errors_only, "Only the error and warning files");
  tail->add_flag("-f,--follow", o->follow,
                 "Keep printing lines as they are written, on to the next day's files");
  tail->footer("Examples:\n  pelmora log tail -n 50 --errors\n  pelmora log tail -f");
  tail->callback([o, &action] { action = [o] { return LogTail(*o); }; });
}

}  // namespace pelmora_tool
