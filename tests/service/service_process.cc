#include "tests/service/service_process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

#include "pelmora/admin/internal/built_in_secrets.h"
#include "pelmorad/config.h"
#include "pelmorad/password.h"
#include "pelmorad/tls_identity.h"

extern char** environ;

namespace pelmorad::testing {
namespace {

constexpr int kStartMilliseconds = 20000;

// The hashes are computed once per test program (yescrypt is slow on purpose).
const std::string& Hash(std::string_view password) {
  static const std::string operator_hash = HashPassword(kOperatorPassword);
  static const std::string reader_hash = HashPassword(kReaderPassword);
  static const std::string built_in_hash =
      HashPassword(pelmora::admin::internal::BuiltInPassword());
  if (password == kOperatorPassword) return operator_hash;
  if (password == kReaderPassword) return reader_hash;
  return built_in_hash;
}

}  // namespace

const std::string& HashOf(std::string_view password) { return Hash(password); }

namespace {

std::string ConfigText(const std::string& folder, const std::string& extra,
                       const std::string& top) {
  return fmt::format(R"(
state_directory = "{0}/state"
{6}
[drives]
C = "{0}/c"
D = "{0}/d"
[paths]
QelProgram = 'C:\qel\bin'
[system]
directory = 'C:\Windows\system32'
[accounts.operator]
password = "{1}"
commands = true
run_as = "root"
[accounts.reader]
password = "{2}"
read_only = true
[accounts.donly]
password = "{1}"
drives = ["D"]
[accounts."{3}"]
password = "{4}"
commands = true
run_as = "root"
{5}
)",
                     folder, Hash(kOperatorPassword), Hash(kReaderPassword),
                     pelmora::admin::internal::BuiltInAccount(), Hash("built-in"), extra, top);
}

// Opens a FIFO at `path` for the service to write a port into; the reading end.
int OpenPortFifo(const std::string& path) {
  ::unlink(path.c_str());
  ::mkfifo(path.c_str(), 0600);
  return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

// The port the service writes into the FIFO read through `reader` (0 when none comes within
// the start time); closes `reader`.
int ReadPort(int reader) {
  std::string text;
  pollfd entry{reader, POLLIN, 0};
  if (::poll(&entry, 1, kStartMilliseconds) == 1) {
    char buffer[32] = {};
    ssize_t got = ::read(reader, buffer, sizeof(buffer) - 1);
    if (got > 0) text.assign(buffer, static_cast<size_t>(got));
  }
  ::close(reader);
  return std::atoi(text.c_str());
}

// Waits for `pid` to end, at most `milliseconds`; its status or nullopt.
std::optional<int> WaitFor(pid_t pid, int milliseconds) {
  int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd >= 0) {
    pollfd entry{pidfd, POLLIN, 0};
    ::poll(&entry, 1, milliseconds);
    ::close(pidfd);
  }
  int status = 0;
  if (::waitpid(pid, &status, WNOHANG) != pid) return std::nullopt;
  return status;
}

}  // namespace

pelmora::TlsClientSettings TlsChecks(std::string fingerprint, std::string ca_file,
                                     std::string known_hosts, bool trust_new) {
  pelmora::TlsClientSettings settings;
  settings.enabled = true;
  settings.fingerprint = std::move(fingerprint);
  settings.ca_file = std::move(ca_file);
  settings.known_hosts = std::move(known_hosts);
  settings.trust_new = trust_new;
  return settings;
}

bool TestTransportIsTls() {
  const char* transport = std::getenv("PELMORA_TEST_TRANSPORT");
  return transport != nullptr && std::string_view(transport) == "tls";
}

ServiceProcess::ServiceProcess(std::string extra, std::string top)
    : top_(std::move(top)),
      listeners_(TestTransportIsTls() ? Listeners::kPlainAndTls : Listeners::kPlain) {
  char folder_template[] = "/tmp/pelmorad-e2e-XXXXXX";
  if (::mkdtemp(folder_template) == nullptr) ADD_FAILURE() << "mkdtemp failed";
  folder_ = folder_template;
  ::mkdir((folder_ + "/c").c_str(), 0755);
  ::mkdir((folder_ + "/d").c_str(), 0755);
  config_path_ = folder_ + "/pelmorad.toml";
  log_path_ = folder_ + "/stderr.log";
  WriteConfig(extra);
}

ServiceProcess::~ServiceProcess() {
  if (pid_ > 0) Stop(SIGKILL);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void ServiceProcess::WriteConfig(const std::string& extra) {
  std::string temporary = config_path_ + ".new";
  WriteFile(temporary, ConfigText(folder_, extra, top_));
  ::chmod(temporary.c_str(), 0600);
  ::rename(temporary.c_str(), config_path_.c_str());
}

bool ServiceProcess::Start(std::string listen) {
  // The test's environment names the service; a test program built with the service's path
  // compiled in (PELMORAD_DEFAULT_BINARY) can do without it.
  const char* binary = std::getenv("PELMORAD_BINARY");
#ifdef PELMORAD_DEFAULT_BINARY
  if (binary == nullptr) binary = PELMORAD_DEFAULT_BINARY;
#endif
  if (binary == nullptr) {
    ADD_FAILURE() << "PELMORAD_BINARY is not set";
    return false;
  }
  std::string fifo = folder_ + "/port.fifo";
  std::string tls_fifo = folder_ + "/tls-port.fifo";
  int reader = listeners_ != Listeners::kTlsOnly ? OpenPortFifo(fifo) : -1;
  int tls_reader = listeners_ != Listeners::kPlain ? OpenPortFifo(tls_fifo) : -1;
  std::vector<std::string> args = {binary, "--config", config_path_};
  if (reader >= 0) args.insert(args.end(), {"--listen", listen, "--port-file", fifo});
  if (tls_reader >= 0) {
    args.insert(args.end(), {"--listen-tls", "127.0.0.1:0", "--tls-port-file", tls_fifo});
  }
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log_path_.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  int spawned = ::posix_spawn(&pid_, binary, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    if (reader >= 0) ::close(reader);
    if (tls_reader >= 0) ::close(tls_reader);
    ADD_FAILURE() << "cannot start " << binary;
    return false;
  }
  // The service writes the plain port first.
  port_ = reader >= 0 ? ReadPort(reader) : 0;
  tls_port_ = tls_reader >= 0 && (reader < 0 || port_ > 0) ? ReadPort(tls_reader) : 0;
  if (tls_reader >= 0 && port_ <= 0 && reader >= 0) ::close(tls_reader);
  bool up = (reader < 0 || port_ > 0) && (tls_reader < 0 || tls_port_ > 0);
  if (!up) ADD_FAILURE() << "pelmorad did not come up:\n" << ErrorOutput();
  if (up && tls_port_ > 0) {
    Config config = ParseConfig(ReadFile(config_path_), config_path_);
    tls_fingerprint_ = CertificateFileFingerprint(
        config.tls.certificate.empty() ? StateFolder() + "/" + kOwnCertificateName
                                       : config.tls.certificate);
  }
  return up;
}

bool ServiceProcess::ConnectClient(pelmora::admin::RCFSO& fso, std::string_view user,
                                   std::string_view password) const {
  if (!TestTransportIsTls()) return fso.Connect("127.0.0.1", port_, user, password, false);
  fso.set_tls(TlsChecks(tls_fingerprint_));
  return fso.Connect("127.0.0.1", tls_port_, user, password, false);
}

void ServiceProcess::Signal(int signal) const {
  if (pid_ > 0) ::kill(pid_, signal);
}

int ServiceProcess::Stop(int signal) {
  if (pid_ <= 0) return -1;
  ::kill(pid_, signal);
  std::optional<int> status = WaitFor(pid_, kStartMilliseconds);
  if (!status) {
    ::kill(pid_, SIGKILL);
    WaitFor(pid_, kStartMilliseconds);
    pid_ = -1;
    return -1;
  }
  pid_ = -1;
  if (WIFSIGNALED(*status)) return 128 + WTERMSIG(*status);
  return WEXITSTATUS(*status);
}

std::string ServiceProcess::Drive(char letter) const {
  return folder_ + "/" + static_cast<char>(std::tolower(letter));
}

std::string ServiceProcess::ErrorOutput() const { return ReadFile(log_path_); }

int RunProgram(const std::vector<std::string>& argv) {
  std::vector<std::string> copies = argv;
  std::vector<char*> pointers;
  for (std::string& arg : copies) pointers.push_back(arg.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  int spawned = ::posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return -1;
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

namespace {

// Holds the lock that test programs take turns on for changing the user database.
class UserDatabaseTurn {
 public:
  UserDatabaseTurn() : fd_(::open("/tmp/pelmorad-test-users.lock", O_CREAT | O_RDWR | O_CLOEXEC,
                                  0600)) {
    if (fd_ >= 0) ::flock(fd_, LOCK_EX);
  }
  ~UserDatabaseTurn() {
    if (fd_ >= 0) ::close(fd_);
  }

 private:
  int fd_;
};

}  // namespace

ScopedUser::ScopedUser(std::string_view prefix)
    : name_(std::string(prefix) + std::to_string(::getpid())) {
  UserDatabaseTurn turn;
  RunProgram({"/usr/sbin/userdel", name_});  // a leftover of an earlier run with this pid
  int status = RunProgram({"/usr/sbin/useradd", "--system", "--no-create-home", "--user-group",
                           "--shell", "/usr/sbin/nologin", name_});
  passwd* entry = status == 0 ? ::getpwnam(name_.c_str()) : nullptr;
  if (entry == nullptr) {
    ADD_FAILURE() << "cannot add the test user " << name_ << " (useradd status " << status << ")";
    return;
  }
  uid_ = entry->pw_uid;
  gid_ = entry->pw_gid;
  ok_ = true;
}

ScopedUser::~ScopedUser() {
  UserDatabaseTurn turn;
  RunProgram({"/usr/sbin/userdel", name_});
}

bool ProcessEnds(pid_t pid, int milliseconds) {
  int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) return true;  // already gone and reaped
  pollfd entry{pidfd, POLLIN, 0};
  bool ended = ::poll(&entry, 1, milliseconds) == 1;
  ::close(pidfd);
  return ended;
}

bool WaitForLine(const std::string& path) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    std::string text = ReadFile(path);
    if (!text.empty() && text.back() == '\n') return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

void WriteFile(const std::string& path, std::string_view content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool PathExists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

}  // namespace pelmorad::testing
