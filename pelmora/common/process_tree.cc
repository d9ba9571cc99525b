// Killing every process a child started: the tree beneath it is read from
// /proc/PID/task/TID/children, one thread's list of children at a time.
#include "pelmora/common/process_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <memory>
#include <string>
#include <unordered_set>

#include "pelmora/platform/file_io.h"

namespace pelmora {

std::vector<pid_t> ParseChildList(std::string_view text) {
  std::vector<pid_t> pids;
  std::size_t at = 0;
  while (at < text.size()) {
    if (text[at] == ' ' || text[at] == '\n') {
      ++at;
      continue;
    }
    long value = 0;
    std::size_t digits = 0;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9' && digits < 10) {
      value = value * 10 + (text[at] - '0');
      ++at;
      ++digits;
    }
    bool separated = at == text.size() || text[at] == ' ' || text[at] == '\n';
    if (digits == 0 || !separated || value <= 0 || value > INT_MAX) break;
    pids.push_back(static_cast<pid_t>(value));
  }
  return pids;
}

namespace {

constexpr std::size_t kMaxProcFileBytes = 1 << 20;
constexpr std::size_t kMaxTreeSize = 1 << 16;
constexpr auto kTreeKillTime = std::chrono::milliseconds(250);

// The contents of a /proc file, at most kMaxProcFileBytes; empty when it cannot be read.
std::string ReadProcFile(const char* path) {
  std::string text;
  platform::UniqueFd fd(platform::Open(path, O_RDONLY | O_CLOEXEC));
  if (!fd) return text;
  char buffer[4096];
  while (text.size() < kMaxProcFileBytes) {
    ssize_t got = platform::Read(fd.get(), buffer, sizeof(buffer));
    if (got <= 0) break;
    text.append(buffer, static_cast<std::size_t>(got));
  }
  return text;
}

// Whether `pid` runs: it exists and is neither a zombie nor dead ("pid (name) S ...", where the
// name may hold anything, so the state is read after its last ')').
bool Runs(pid_t pid) {
  char path[64];
  std::snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
  std::string text = ReadProcFile(path);
  std::size_t close = text.rfind(')');
  if (close == std::string::npos || close + 2 >= text.size()) return false;
  char state = text[close + 2];
  return state != 'Z' && state != 'X' && state != 'x';
}

// The children of every thread of `pid`.
void AddChildren(pid_t pid, std::vector<pid_t>& into) {
  char path[64];
  std::snprintf(path, sizeof(path), "/proc/%d/task", static_cast<int>(pid));
  platform::UniqueDir tasks(opendir(path));
  if (!tasks) return;
  while (dirent* entry = readdir(tasks.get())) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    char children[96];
    std::snprintf(children, sizeof(children), "/proc/%d/task/%.20s/children", static_cast<int>(pid),
                  entry->d_name);
    for (pid_t child : ParseChildList(ReadProcFile(children))) into.push_back(child);
  }
}

// The live processes beneath `root`, at most kMaxTreeSize of them.
std::vector<pid_t> LiveDescendants(pid_t root) {
  std::vector<pid_t> live;
  std::vector<pid_t> queue = {root};
  std::size_t visited = 0;
  while (!queue.empty() && visited < kMaxTreeSize) {
    pid_t next = queue.back();
    queue.pop_back();
    ++visited;
    std::vector<pid_t> children;
    AddChildren(next, children);
    for (pid_t child : children) {
      if (!Runs(child)) continue;
      live.push_back(child);
      queue.push_back(child);
    }
  }
  return live;
}

}  // namespace

void KillProcessTree(pid_t root) {
  if (root <= 0) return;
  // Stopped, the root cannot end and hand what it holds to init; as a subreaper it still takes
  // in the orphans of the processes killed beneath it, where the next round finds them.
  kill(root, SIGSTOP);
  auto deadline = std::chrono::steady_clock::now() + kTreeKillTime;
  std::unordered_set<pid_t> signalled;
  while (std::chrono::steady_clock::now() < deadline) {
    std::vector<pid_t> live = LiveDescendants(root);
    if (live.empty()) break;
    bool fresh = false;
    for (pid_t pid : live) {
      kill(pid, SIGKILL);
      fresh = signalled.insert(pid).second || fresh;
    }
    // Everything found is already dying: give it a moment rather than read /proc in a spin.
    if (!fresh) usleep(1000);
  }
  kill(-root, SIGKILL);
  kill(root, SIGKILL);
}

}  // namespace pelmora
