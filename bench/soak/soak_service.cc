#include "bench/soak/soak_service.h"

#include <crypt.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

extern char** environ;

namespace pelmora_soak {
namespace {

namespace fs = std::filesystem;

// A service run by root runs the account as nobody: the drive becomes nobody's, and the scratch
// folder above it only passable.
void GiveDriveToNobody(const std::string& folder) {
  const passwd* nobody = ::getpwnam("nobody");
  if (nobody == nullptr) return;
  ::chmod(folder.c_str(), 0711);
  for (const auto& entry : fs::recursive_directory_iterator(folder + "/c")) {
    ::lchown(entry.path().c_str(), nobody->pw_uid, nobody->pw_gid);
  }
  ::lchown((folder + "/c").c_str(), nobody->pw_uid, nobody->pw_gid);
}

}  // namespace

std::string DefaultService() {
  if (const char* binary = std::getenv("PELMORAD_BINARY")) return binary;
  fs::path self = fs::read_symlink("/proc/self/exe");
  return (self.parent_path().parent_path().parent_path() / "pelmorad" / "pelmorad").string();
}

Service::Service(const std::string& binary, const std::string& folder, int sessions) : folder_(folder) {
  fs::create_directories(folder + "/c/shared");
  fs::create_directories(folder + "/c/work");
  crypt_data data{};
  std::string hash = crypt_rn(kPassword, "$6$rounds=1000$soaksalt", &data, sizeof(data));
  std::ofstream(folder + "/pelmorad.toml")
      << "[drives]\nC = \"" << folder << "/c\"\n[accounts." << kAccount << "]\npassword = \""
      << hash << "\"\ncommands = true\n"
      << (::geteuid() == 0 ? "run_as = \"nobody\"\n" : "") << "[limits]\nsessions = "
      << sessions + 100
      << "\nsessions_per_address = " << sessions + 100
      << "\nidle_seconds = 3600\nlogin_failures = 1000\nlogin_delay_ms = 0\n";
  ::chmod((folder + "/pelmorad.toml").c_str(), 0600);
  if (::geteuid() == 0) GiveDriveToNobody(folder);
  std::string fifo = folder + "/port";
  ::mkfifo(fifo.c_str(), 0600);
  int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  std::vector<std::string> args = {binary, "--config", folder + "/pelmorad.toml", "--listen",
                                   "127.0.0.1:0", "--port-file", fifo};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (folder + "/audit.log").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  ::posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  pollfd entry{reader, POLLIN, 0};
  char text[16] = {};
  if (::poll(&entry, 1, 20000) == 1) (void)!::read(reader, text, sizeof(text) - 1);
  ::close(reader);
  port_ = std::atoi(text);
}

Service::~Service() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

int Service::Stop() {
  ::kill(pid_, SIGTERM);
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace pelmora_soak
