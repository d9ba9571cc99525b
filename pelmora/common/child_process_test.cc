#include "pelmora/common/child_process.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

using testing::RaisedError;
constexpr int kWaitMs = 10000;  // upper bound for anything a test waits on

// True when `fd` becomes readable within `timeout_ms`.
bool Readable(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, timeout_ms) == 1;
}

// Everything the child writes until end of file (bounded by kWaitMs).
std::string ReadAll(const ChildProcess& child) {
  std::string out;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (std::chrono::steady_clock::now() < deadline && Readable(child.output_fd(), kWaitMs)) {
    char buffer[4096];
    ssize_t n = read(child.output_fd(), buffer, sizeof(buffer));
    if (n == 0) return out;
    if (n > 0) out.append(buffer, n);
  }
  ADD_FAILURE() << "no end of file; read so far: " << out;
  return out;
}

struct Result {
  std::string output;
  ChildExit exit;
};

// A launch description for `command_line` with every other member at its default.
ChildSpec Command(std::string command_line) {
  ChildSpec launch;
  launch.command_line = std::move(command_line);
  return launch;
}

ChildSpec Command(std::string command_line, std::string run_as) {
  ChildSpec launch = Command(std::move(command_line));
  launch.run_as = std::move(run_as);
  return launch;
}

Result RunChild(const ChildSpec& launch) {
  ChildProcess child = ChildProcess::Start(launch);
  std::string output = ReadAll(child);
  return {output, child.Wait()};
}

Result RunChild(const std::string& command_line) { return RunChild(Command(command_line)); }

int OpenFdCount() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

passwd* CurrentUser() { return getpwuid(geteuid()); }

TEST(ChildProcess, MergesStandardOutputAndErrorInArrivalOrder) {
  Result r = RunChild("echo one; echo two >&2; printf three; echo ' four' >&2; echo five");
  EXPECT_EQ(r.output, "one\ntwo\nthree four\nfive\n");
  EXPECT_EQ(r.exit, (ChildExit{false, 0}));
}

TEST(ChildProcess, ReportsExitCodesAndSignalDeaths) {
  struct Case {
    std::string command_line;
    ChildExit exit;
  };
  const Case kCases[] = {
      {"true", {false, 0}},          {"false", {false, 1}},
      {"exit 3", {false, 3}},        {"exit 255", {false, 255}},
      {"kill -TERM $$", {true, 15}}, {"kill -KILL $$", {true, 9}},
      {"kill -SEGV $$", {true, 11}}, {"no-such-command-here", {false, 127}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.command_line);
    EXPECT_EQ(RunChild(c.command_line).exit, c.exit);
  }
}

TEST(ChildProcess, ReadsStandardInputFromDevNull) {
  EXPECT_EQ(RunChild("cat; readlink /proc/$$/fd/0").output, "/dev/null\n");
}

TEST(ChildProcess, GivesTheChildOnlyItsThreeStandardDescriptors) {
  int leaked = open("/dev/null", O_RDONLY);  // deliberately without O_CLOEXEC
  ASSERT_GE(leaked, 0);
  Result r = RunChild("ls /proc/$$/fd");
  close(leaked);
  EXPECT_EQ(r.output, "0\n1\n2\n");
}

TEST(ChildProcess, LeavesNoDescriptorOpenInTheParent) {
  int before = OpenFdCount();
  RunChild("echo x");
  ChildSpec no_shell = Command("true");
  no_shell.shell = "/nonexistent";
  EXPECT_THROW(ChildProcess::Start(no_shell), Error);
  EXPECT_EQ(OpenFdCount(), before);
}

TEST(ChildProcess, HandsOutNonBlockingCloseOnExecDescriptors) {
  ChildProcess child = ChildProcess::Start(Command("exec sleep 100"));
  EXPECT_EQ(fcntl(child.output_fd(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  EXPECT_EQ(fcntl(child.output_fd(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(child.exit_fd(), F_GETFD), FD_CLOEXEC);
  char byte;
  EXPECT_EQ(read(child.output_fd(), &byte, 1), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(ChildProcess, RunsInACleanEnvironmentWithExtraEntries) {
  setenv("PELMORA_CHILD_SECRET", "1", 1);
  passwd* user = CurrentUser();
  ASSERT_NE(user, nullptr);
  std::string name = user->pw_name, home = user->pw_dir, shell = user->pw_shell;
  ChildSpec launch = Command("/usr/bin/env | /usr/bin/sort");
  launch.environment = {"PATH=/opt/bin", "ZED=a=b"};
  Result r = RunChild(launch);
  unsetenv("PELMORA_CHILD_SECRET");
  EXPECT_EQ(r.output, "HOME=" + home + "\nLOGNAME=" + name + "\nPATH=/opt/bin\nPWD=" + home +
                          "\nSHELL=" + shell + "\nUSER=" + name + "\nZED=a=b\n");
  EXPECT_EQ(RunChild("echo $PATH").output, "/usr/local/bin:/usr/bin:/bin\n");
}

TEST(ChildProcess, RestoresDefaultSignalDispositionsAndMask) {
  struct sigaction ignore {};
  struct sigaction previous {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGINT, &ignore, &previous);
  sigset_t term, old_mask;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, &old_mask);
  // Read with shell builtins only: while the shell forks a program it blocks every signal for a
  // moment, which such a program would see in /proc/$$/status.
  Result r = RunChild(
      "while read -r line; do case $line in SigBlk*|SigIgn*) echo \"$line\";; esac; done"
      " < /proc/$$/status; kill -INT $$");
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
  sigaction(SIGINT, &previous, nullptr);
  EXPECT_EQ(r.output, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
  EXPECT_EQ(r.exit, (ChildExit{true, SIGINT}));
}

TEST(ChildProcess, UsesTheGivenWorkingFolderOrTheHomeFolder) {
  std::string folder = std::filesystem::temp_directory_path();
  ChildSpec launch = Command("pwd");
  launch.working_folder = folder;
  EXPECT_EQ(RunChild(launch).output, folder + "\n");
  EXPECT_EQ(RunChild("pwd").output, std::string(CurrentUser()->pw_dir) + "\n");
}

TEST(ChildProcess, RunsInItsOwnProcessGroup) {
  ChildProcess child = ChildProcess::Start(Command("cut -d' ' -f5 /proc/$$/stat"));
  EXPECT_EQ(std::stoi(ReadAll(child)), child.pid());
  EXPECT_NE(child.pid(), getpgrp());
  child.Wait();
}

TEST(ChildProcess, RaisesANumberedErrorWhenItCannotStart) {
  struct Case {
    std::string shell;
    std::string folder;
    int number;
    std::string text;
  };
  const Case kCases[] = {
      {"/nonexistent/sh", "", 2, "The system cannot find the file specified."},
      {"/etc/passwd", "", 5, "Access is denied."},
      {"/etc/passwd/sh", "", 3, "The system cannot find the path specified."},
      {"/bin/sh", "/nonexistent/folder", 267, "The directory name is invalid."},
      {"/bin/sh", "/etc/passwd", 267, "The directory name is invalid."},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.shell + " in " + c.folder);
    ChildSpec launch = Command("true");
    launch.shell = c.shell;
    launch.working_folder = c.folder;
    Error e = RaisedError([&] { ChildProcess::Start(launch); });
    EXPECT_EQ(e.Number(), c.number);
    EXPECT_EQ(e.Description(), c.text);
    EXPECT_EQ(e.Source(), "ChildProcess");
  }
}

TEST(ChildProcess, TryReapIsNulloptWhileRunningAndStableAfterwards) {
  ChildProcess child = ChildProcess::Start(Command("exec sleep 100"));
  EXPECT_EQ(child.TryReap(), std::nullopt);
  EXPECT_FALSE(Readable(child.exit_fd(), 0));
  child.KillGroup();
  ASSERT_TRUE(Readable(child.exit_fd(), kWaitMs));
  EXPECT_EQ(child.TryReap(), (ChildExit{true, SIGKILL}));
  EXPECT_EQ(child.TryReap(), (ChildExit{true, SIGKILL}));
  EXPECT_EQ(child.Wait(), (ChildExit{true, SIGKILL}));
  child.KillGroup();  // idempotent
}

// Starts a shell that leaves a background grandchild and returns that grandchild's pidfd.
int StartWithGrandchild(ChildProcess& child) {
  child = ChildProcess::Start(Command("sleep 100 & echo $!; wait"));
  EXPECT_TRUE(Readable(child.output_fd(), kWaitMs));
  char buffer[32] = {};
  EXPECT_GT(read(child.output_fd(), buffer, sizeof(buffer) - 1), 0);
  return static_cast<int>(syscall(SYS_pidfd_open, atoi(buffer), 0));
}

TEST(ChildProcess, KillGroupEndsTheGrandchildThatOutlivesTheShell) {
  ChildProcess child = ChildProcess::Start(Command("true"));
  child.Wait();
  int grandchild = StartWithGrandchild(child);
  ASSERT_GE(grandchild, 0);
  kill(child.pid(), SIGKILL);  // the shell only
  EXPECT_EQ(child.Wait(), (ChildExit{true, SIGKILL}));
  EXPECT_FALSE(Readable(grandchild, 0));
  child.KillGroup();
  EXPECT_TRUE(Readable(grandchild, kWaitMs));
  EXPECT_EQ(ReadAll(child), "");
  close(grandchild);
}

TEST(ChildProcess, DestroyingARunningChildKillsItsWholeGroup) {
  ChildProcess child = ChildProcess::Start(Command("true"));
  child.Wait();
  int grandchild = StartWithGrandchild(child);
  ASSERT_GE(grandchild, 0);
  ChildProcess other = ChildProcess::Start(Command("exit 4"));
  child = std::move(other);  // the running child is killed and reaped here
  EXPECT_EQ(other.pid(), 0);
  EXPECT_EQ(other.output_fd(), -1);
  EXPECT_TRUE(Readable(grandchild, kWaitMs));
  EXPECT_EQ(child.Wait(), (ChildExit{false, 4}));
  close(grandchild);
}

// A user for the run-as test, added for it and removed with its home folder afterwards.
class TestUser {
 public:
  TestUser() : name_("pelmora-child-" + std::to_string(getpid())) {
    Run("userdel --remove " + name_);  // a leftover of an earlier run with this pid
    Run("useradd --create-home --shell /bin/sh " + name_);
  }
  ~TestUser() { Run("userdel --remove " + name_); }
  const std::string& name() const { return name_; }

 private:
  static void Run(const std::string& command) {
    [[maybe_unused]] int status = std::system((command + " >/dev/null 2>&1").c_str());
  }
  std::string name_;
};

TEST(ChildProcess, RunsAsTheGivenUserWhenRoot) {
  if (geteuid() != 0) GTEST_SKIP() << "run_as needs root";
  TestUser test_user;
  const std::string& user_name = test_user.name();
  passwd* user = getpwnam(user_name.c_str());
  ASSERT_NE(user, nullptr) << "cannot add " << user_name;
  std::string home = user->pw_dir;
  Result r =
      RunChild(Command("id -un; id -u; id -g; pwd; echo $HOME $USER $LOGNAME $SHELL", user_name));
  EXPECT_EQ(r.output, user_name + "\n" + std::to_string(user->pw_uid) + "\n" +
                          std::to_string(user->pw_gid) + "\n" + home + "\n" + home + " " +
                          user_name + " " + user_name + " /bin/sh\n");
  EXPECT_EQ(RunChild(Command("id -G", user_name)).output, std::to_string(user->pw_gid) + "\n");
}

TEST(ChildProcess, RefusesAnUnknownRunAsUserWhenRoot) {
  if (geteuid() != 0) GTEST_SKIP() << "run_as is used only when root";
  Error e = RaisedError([] { ChildProcess::Start(Command("true", "no-such")); });
  EXPECT_EQ(e.Number(), 1326);
  EXPECT_EQ(e.Description(), "The user name or password is incorrect.");
  EXPECT_EQ(e.Source(), "ChildProcess");
}

}  // namespace
}  // namespace pelmora
