#include "pelmorad/command_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/platform/file_io.h"
#include "pelmora/platform/win_error.h"

namespace pelmorad {
namespace {

constexpr int kKillRounds = 64;

std::string& KeeperBinary() {
  static std::string path;
  return path;
}

// The parent and whether it still runs (not a zombie) of process `pid`, from /proc/PID/stat.
bool ReadParent(pid_t pid, pid_t& parent, bool& live) {
  char path[64];
  std::snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[512];
  ssize_t got = ::read(fd, text, sizeof(text) - 1);
  ::close(fd);
  if (got <= 0) return false;
  text[got] = '\0';
  // "pid (name) S ppid ...": the name may hold anything, so look after its last ')'.
  char* close = std::strrchr(text, ')');
  if (close == nullptr || close[1] != ' ' || close[2] == '\0') return false;
  char state = close[2];
  parent = static_cast<pid_t>(std::strtol(close + 3, nullptr, 10));
  live = state != 'Z' && state != 'X';
  return true;
}

// The live processes beneath `root`.
std::vector<pid_t> LiveDescendants(pid_t root) {
  std::multimap<pid_t, pid_t> children;
  std::map<pid_t, bool> live;
  pelmora::platform::UniqueDir proc(::opendir("/proc"));
  if (!proc) return {};
  while (dirent* entry = ::readdir(proc.get())) {
    char* end = nullptr;
    long pid = std::strtol(entry->d_name, &end, 10);
    if (pid <= 0 || *end != '\0') continue;
    pid_t parent = 0;
    bool running = false;
    if (!ReadParent(static_cast<pid_t>(pid), parent, running)) continue;
    children.emplace(parent, static_cast<pid_t>(pid));
    live[static_cast<pid_t>(pid)] = running;
  }
  std::vector<pid_t> found;
  std::vector<pid_t> queue = {root};
  while (!queue.empty()) {
    pid_t next = queue.back();
    queue.pop_back();
    auto [first, last] = children.equal_range(next);
    for (auto it = first; it != last; ++it) {
      if (live[it->second]) found.push_back(it->second);
      queue.push_back(it->second);
    }
  }
  return found;
}

}  // namespace

void FindKeeper() {
  char path[4096];
  ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (length <= 0) return;
  std::string binary(path, static_cast<std::size_t>(length));
  std::string keeper = binary.substr(0, binary.rfind('/') + 1) + kKeeperName;
  if (::access(keeper.c_str(), X_OK) == 0) KeeperBinary() = keeper;
}

bool KeeperFound() { return !KeeperBinary().empty(); }

pelmora::ChildSpec KeptCommand(const std::string& shell, std::string command_line) {
  pelmora::ChildSpec launch;
  launch.command_line = std::move(command_line);
  launch.shell = shell;
  if (!KeeperBinary().empty()) {
    launch.shell = KeeperBinary();
    launch.environment.push_back(std::string(kKeeperShellVariable) + "=" + shell);
  }
  return launch;
}

pelmora::ChildSpec KeptArguments(std::vector<std::string> arguments) {
  pelmora::ChildSpec launch;
  if (!KeeperBinary().empty() && !arguments.empty()) {
    arguments[0] = pelmora::FindProgram(arguments[0]);
    arguments.insert(arguments.begin(), {KeeperBinary(), "--"});
  }
  launch.arguments = std::move(arguments);
  return launch;
}

pelmora::ChildProcess StartKept(const pelmora::ChildSpec& launch) {
  // The program the keeper will run: the shell it is told of, or the first word after "--".
  std::string program;
  std::string prefix = std::string(kKeeperShellVariable) + "=";
  for (const std::string& entry : launch.environment) {
    if (entry.rfind(prefix, 0) == 0) program = entry.substr(prefix.size());
  }
  const std::vector<std::string>& words = launch.arguments;
  if (words.size() >= 3 && words[0] == KeeperBinary() && words[1] == "--") program = words[2];
  if (!program.empty() && ::access(program.c_str(), X_OK) != 0) {
    int32_t number = pelmora::platform::Win32FromErrno(errno);
    throw pelmora::Error(number, pelmora::DescribeError(number), "ChildProcess");
  }
  return pelmora::ChildProcess::Start(launch);
}

void KillProcessTree(pid_t root) {
  if (root <= 0) return;
  for (int round = 0; round < kKillRounds; ++round) {
    std::vector<pid_t> live = LiveDescendants(root);
    if (live.empty()) break;
    for (pid_t pid : live) ::kill(pid, SIGKILL);
  }
  ::kill(-root, SIGKILL);
}

void KillCommandTree(pelmora::ChildProcess& child) {
  // Never reaps: the caller's record of the number stays the child's until it reaps it itself.
  KillProcessTree(child.pid());
  child.KillGroup();
}

}  // namespace pelmorad
