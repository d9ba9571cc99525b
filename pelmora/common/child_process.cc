// ChildProcess: vfork, then only system calls in the child until execve. Everything the child
// needs (argument and environment arrays, the identity, the group list) is prepared in the parent,
// because the child shares the parent's memory and the parent may have other threads holding
// locks. A vfork copies no page tables, which a fork of a large service with many threads does on
// every command; the calling thread waits only until the child has called execve.
#include "pelmora/common/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/internal/child_launch_plan.h"
#include "pelmora/common/process_tree.h"
#include "pelmora/platform/file_io.h"
#include "pelmora/platform/win_error.h"

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

namespace pelmora {
namespace {

constexpr char kSource[] = "ChildProcess";
constexpr int kStatusFd = 3;  // where the child keeps the exec status pipe

// What went wrong in the child, sent through the close-on-exec status pipe.
enum class Stage : int { kFolder = 1, kIdentity, kExec };
struct ChildFailure {
  Stage stage = Stage::kExec;
  int error = 0;
};

Error StartError(int number) { return Error(number, DescribeError(number), kSource); }

Error FailureError(const ChildFailure& failure) {
  if (failure.stage == Stage::kFolder) return StartError(267);
  return StartError(platform::Win32FromErrno(failure.error));
}

using internal::Identity;
using internal::LaunchPlan;
using platform::UniqueFd;

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe MakePipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw StartError(platform::Win32FromErrno(errno));
  return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}


// --- In the child: system calls only. The child shares the parent's memory until execve, so it
// goes through no C library code that takes locks or signals threads (setuid and its kin do:
// they are made as raw system calls). ---

[[noreturn]] void FailChild(Stage stage, int status_fd = kStatusFd) {
  ChildFailure failure{stage, errno};
  ssize_t ignored = write(status_fd, &failure, sizeof(failure));
  (void)ignored;
  _exit(127);
}

// Keeps `fd` clear of 0..3 so the dup2 calls below cannot overwrite one another's sources.
int LiftFd(int fd) { return fd > kStatusFd ? fd : fcntl(fd, F_DUPFD_CLOEXEC, kStatusFd + 1); }

// The child's ends of its standard input, output and error.
struct ChildFds {
  int input;
  int output;
  int error;
};

void ArrangeFds(ChildFds fds, int status_fd) {
  int lifted_status_fd = LiftFd(status_fd);
  if (lifted_status_fd < 0) FailChild(Stage::kExec, status_fd);
  status_fd = lifted_status_fd;
  fds = {LiftFd(fds.input), LiftFd(fds.output), LiftFd(fds.error)};
  if (fds.output < 0 || fds.input < 0 || fds.error < 0 || dup2(fds.input, 0) < 0 ||
      dup2(fds.output, 1) < 0 || dup2(fds.error, 2) < 0 ||
      dup3(status_fd, kStatusFd, O_CLOEXEC) < 0) {
    FailChild(Stage::kExec, status_fd);
  }
  if (syscall(SYS_close_range, kStatusFd + 1, ~0U, 0) != 0) {
    for (int fd = kStatusFd + 1; fd < 65536; ++fd) close(fd);
  }
}

void ResetSignals() {
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) sigaction(signal, &action, nullptr);
}

void BecomeUser(const Identity& identity) {
  if (!identity.change) return;
  if (syscall(SYS_setgroups, identity.groups.size(), identity.groups.data()) != 0 ||
      syscall(SYS_setgid, identity.gid) != 0 || syscall(SYS_setuid, identity.uid) != 0) {
    FailChild(Stage::kIdentity);
  }
}

[[noreturn]] void RunChild(const LaunchPlan& plan, ChildFds fds, int status_fd) {
  ArrangeFds(fds, status_fd);
  ResetSignals();
  setpgid(0, 0);
  if (plan.subreaper && prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) FailChild(Stage::kExec);
  BecomeUser(plan.identity);
  if (chdir(plan.folder.c_str()) != 0 && (plan.folder_given || chdir("/") != 0)) {
    FailChild(Stage::kFolder);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execve(plan.argv[0], plan.argv.data(), plan.envp.data());
  FailChild(Stage::kExec);
}

// --- In the parent. ---

// Starts the child with vfork and every signal blocked, so no handler of the parent runs in the
// child (on the parent's memory) before the child has restored the default dispositions.
pid_t ForkChild(const LaunchPlan& plan, ChildFds fds, int status_fd) {
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  pid_t pid = vfork();
  if (pid == 0) RunChild(plan, fds, status_fd);
  int fork_error = errno;
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (pid < 0) throw StartError(platform::Win32FromErrno(fork_error));
  return pid;
}

// The child's report from the status pipe: nothing (end of file) once execve succeeded.
std::optional<ChildFailure> ReadFailure(int status_fd) {
  ChildFailure failure;
  ssize_t n = platform::Read(status_fd, &failure, sizeof(failure));
  if (n == static_cast<ssize_t>(sizeof(failure))) return failure;
  return std::nullopt;
}

void ReapQuietly(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

ChildProcess ChildProcess::Start(const ChildSpec& launch) {
  LaunchPlan plan = internal::MakePlan(launch);
  UniqueFd null_fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (null_fd.get() < 0) throw StartError(platform::Win32FromErrno(errno));
  Pipe output = MakePipe();
  Pipe status = MakePipe();
  std::optional<Pipe> input, error;
  if (launch.separate_streams) {
    input.emplace(MakePipe());
    error.emplace(MakePipe());
  }
  ChildFds fds{input ? input->read.get() : null_fd.get(), output.write.get(),
               error ? error->write.get() : output.write.get()};
  pid_t pid = ForkChild(plan, fds, status.write.get());
  status.write.reset();
  output.write.reset();
  if (input) {
    input->read.reset();
    error->write.reset();
  }
  if (std::optional<ChildFailure> failure = ReadFailure(status.read.get())) {
    ReapQuietly(pid);
    throw FailureError(*failure);
  }
  UniqueFd exit_fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (exit_fd.get() < 0 || fcntl(output.read.get(), F_SETFL, O_NONBLOCK) != 0 ||
      (input && (fcntl(input->write.get(), F_SETFL, O_NONBLOCK) != 0 ||
                 fcntl(error->read.get(), F_SETFL, O_NONBLOCK) != 0))) {
    int error = errno;
    kill(-pid, SIGKILL);
    ReapQuietly(pid);
    throw StartError(platform::Win32FromErrno(error));
  }
  ChildProcess child(pid, output.read.release(), exit_fd.release());
  child.tracked_ = launch.track_descendants;
  if (input) {
    child.input_fd_ = input->write.release();
    child.error_fd_ = error->read.release();
  }
  return child;
}

ChildProcess::ChildProcess(pid_t pid, int output_fd, int exit_fd)
    : pid_(pid), output_fd_(output_fd), exit_fd_(exit_fd) {}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, 0)),
      output_fd_(std::exchange(other.output_fd_, -1)),
      exit_fd_(std::exchange(other.exit_fd_, -1)),
      input_fd_(std::exchange(other.input_fd_, -1)),
      error_fd_(std::exchange(other.error_fd_, -1)),
      tracked_(other.tracked_),
      exit_(std::exchange(other.exit_, std::nullopt)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    Release();
    pid_ = std::exchange(other.pid_, 0);
    output_fd_ = std::exchange(other.output_fd_, -1);
    exit_fd_ = std::exchange(other.exit_fd_, -1);
    input_fd_ = std::exchange(other.input_fd_, -1);
    error_fd_ = std::exchange(other.error_fd_, -1);
    tracked_ = other.tracked_;
    exit_ = std::exchange(other.exit_, std::nullopt);
  }
  return *this;
}

ChildProcess::~ChildProcess() { Release(); }

void ChildProcess::Release() noexcept {
  if (pid_ > 0 && !exit_) {
    if (tracked_) KillTree();
    KillGroup();
    Reap(true);
  }
  if (output_fd_ >= 0) close(std::exchange(output_fd_, -1));
  if (exit_fd_ >= 0) close(std::exchange(exit_fd_, -1));
  CloseStreams();
  pid_ = 0;
}

void ChildProcess::CloseStreams() noexcept {
  CloseInput();
  if (error_fd_ >= 0) close(std::exchange(error_fd_, -1));
}

void ChildProcess::CloseInput() {
  if (input_fd_ >= 0) close(std::exchange(input_fd_, -1));
}

void ChildProcess::KillGroup() {
  // After the leader is reaped its id stays reserved while any member of the group lives, so
  // this still reaches the grandchildren it left behind.
  if (pid_ > 0) kill(-pid_, SIGKILL);
}

void ChildProcess::KillTree() {
  if (pid_ <= 0 || exit_) return;
  KillProcessTree(pid_);
  KillGroup();
}

std::optional<ChildExit> ChildProcess::TryReap() { return Reap(false); }

ChildExit ChildProcess::Wait() { return Reap(true).value_or(ChildExit{false, -1}); }

std::optional<ChildExit> ChildProcess::Reap(bool block) {
  if (exit_ || exit_fd_ < 0) return exit_;
  siginfo_t info;
  memset(&info, 0, sizeof(info));
  int rc;
  do {
    rc = waitid(static_cast<idtype_t>(P_PIDFD), exit_fd_, &info, WEXITED | (block ? 0 : WNOHANG));
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) {
    exit_ = ChildExit{false, -1};  // reaped elsewhere (ECHILD): the status is lost
  } else if (info.si_pid != 0) {
    exit_ = ChildExit{info.si_code != CLD_EXITED, info.si_status};
  }
  return exit_;
}

std::string FindProgram(const std::string& name) { return internal::FindProgramOnPath(name); }

}  // namespace pelmora
