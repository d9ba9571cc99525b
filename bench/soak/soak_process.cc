#include "bench/soak/soak_process.h"

#include <dirent.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace pelmora_soak {

namespace fs = std::filesystem;

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

Sample SampleProcess(pid_t pid, double seconds) {
  Sample sample;
  sample.seconds = seconds;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmRSS:")) sample.rss_kb = std::atol(line.c_str() + 6);
    if (line.starts_with("Threads:")) sample.threads = std::atol(line.c_str() + 8);
  }
  std::error_code ignored;
  for (auto it = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ignored);
       it != fs::directory_iterator(); it.increment(ignored)) {
    ++sample.fds;
  }
  return sample;
}

std::vector<pid_t> Zombies(pid_t parent) {
  std::vector<pid_t> found;
  DIR* proc = ::opendir("/proc");
  while (dirent* entry = proc ? ::readdir(proc) : nullptr) {
    pid_t pid = std::atoi(entry->d_name);
    if (pid <= 0) continue;
    std::string stat = ReadAll("/proc/" + std::to_string(pid) + "/stat");
    std::size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 4 >= stat.size()) continue;
    char state = stat[close + 2];
    pid_t ppid = std::atoi(stat.c_str() + close + 4);
    if (state == 'Z' && (parent == 0 || ppid == parent)) found.push_back(pid);
  }
  if (proc) ::closedir(proc);
  return found;
}

}  // namespace pelmora_soak
