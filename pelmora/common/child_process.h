// Running a command line as a child process in its own process group.
//
// The child runs `shell -c command_line` with standard input from /dev/null and standard output
// and standard error merged into one pipe (so the parent reads them in arrival order), a clean
// environment, its own process group (so the whole tree can be killed at once) and, when the
// caller is root, the identity of another Linux user. The parent waits on a process descriptor,
// which fits an event loop (epoll/Asio) as well as a blocking Wait():
//
//   ChildProcess child = ChildProcess::Start({.command_line = "make 2>&1", .run_as = "build"});
//   // poll child.output_fd() and child.exit_fd(); read the output until end of file
//   ChildExit exit = child.Wait();   // {signalled, code}
//
// The process is reaped with waitid on its process descriptor: a program that sets SIGCHLD to
// SIG_IGN (automatic reaping) cannot use this class.
#ifndef PELMORA_COMMON_CHILD_PROCESS_H_
#define PELMORA_COMMON_CHILD_PROCESS_H_

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "pelmora/platform/export.h"

namespace pelmora {

// What to run and how.
struct PELMORA_API ChildSpec {
  // Run as `shell -c command_line`.
  std::string command_line;
  std::string shell = "/bin/sh";
  // When not empty, run this argument vector instead, without a shell; a first argument without
  // a '/' is looked up in the child's PATH.
  std::vector<std::string> arguments;
  // Standard input from a pipe (input_fd()) and standard error on a pipe of its own
  // (error_fd()), instead of /dev/null and the output pipe.
  bool separate_streams = false;
  // The child's working folder; empty: the home folder of the user it runs as when that exists,
  // otherwise "/".
  std::string working_folder;
  // The Linux user to run as. Used only when the caller is root (then the user must exist);
  // ignored otherwise. Empty: the current user.
  std::string run_as;
  // Extra "NAME=value" entries added to the clean base environment (HOME, USER, LOGNAME, SHELL of
  // the user the child runs as and PATH=/usr/local/bin:/usr/bin:/bin); an entry replaces a base
  // entry of the same name.
  std::vector<std::string> environment;
  // The child becomes a child subreaper (PR_SET_CHILD_SUBREAPER, kept across its execve): every
  // process it starts stays beneath it while it runs, however it detaches (setsid, double forks),
  // so KillTree reaches them all. What it leaves behind when it ends goes on as usual.
  bool track_descendants = false;
};

// How a child ended: its exit status, or the number of the signal that killed it.
struct PELMORA_API ChildExit {
  bool signalled = false;
  int code = 0;

  bool operator==(const ChildExit&) const = default;
};

// The path an argument vector's program `name` runs from: `name` itself when it holds a '/',
// else the first executable of that name in the children's PATH (/usr/local/bin:/usr/bin:/bin),
// else `name` unchanged. Does not block beyond the look-ups.
PELMORA_API std::string FindProgram(const std::string& name);

// A started child process; owns its output pipe and process descriptor. Move-only. Not
// synchronised: use one object from one thread at a time.
class PELMORA_API ChildProcess {
 public:
  // Starts the child and returns once it runs the shell (the exec succeeded) or failed to.
  // Raises pelmora::Error with source "ChildProcess" when it cannot start:
  //   1326 "The user name or password is incorrect." (run_as is no user of this machine),
  //   267 "The directory name is invalid." (the working folder cannot be entered),
  //   2 "The system cannot find the file specified." (no such shell), 5 "Access is denied."
  //   (shell not executable, or the identity change was refused), 3, 8, 4 or 87 for the other
  //   failures of fork/exec. Blocks only for the fork and exec.
  static ChildProcess Start(const ChildSpec& launch);

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  // Kills the process group (with track_descendants, the whole tree: KillTree) and reaps the
  // child when it has not been reaped yet; closes the descriptors. Blocks until the child is
  // gone.
  ~ChildProcess();

  // The non-blocking, close-on-exec read end of the pipe carrying the child's standard output and
  // standard error in arrival order. End of file once every process of the tree that holds the
  // pipe has ended or closed it. -1 after a move.
  int output_fd() const { return output_fd_; }

  // With separate_streams: the non-blocking, close-on-exec write end of the child's standard
  // input and the read end of its standard error (-1 otherwise). CloseInput() ends the input.
  int input_fd() const { return input_fd_; }
  int error_fd() const { return error_fd_; }
  void CloseInput();

  // The process descriptor (pidfd_open): readable once the child has exited. -1 after a move.
  int exit_fd() const { return exit_fd_; }

  // The child's process id, which is also its process group id. 0 after a move.
  pid_t pid() const { return pid_; }

  // Sends SIGKILL to the child's whole process group (the shell and everything it started that
  // stayed in the group). Idempotent; never blocks.
  void KillGroup();

  // KillProcessTree (process_tree.h) for the child, then KillGroup: with track_descendants, every
  // process the child started and that still runs. Does nothing once the child is reaped. Blocks
  // as KillProcessTree does.
  void KillTree();

  // The child's exit when it has exited (reaping it the first time), nullopt while it runs. Never
  // blocks. After the first reap it keeps returning the same exit.
  std::optional<ChildExit> TryReap();

  // Waits until the child exits and returns how it ended. Blocks without limit: kill it first to
  // bound the wait. A child reaped elsewhere (SIGCHLD ignored) or a moved-from object gives
  // {false, -1}.
  ChildExit Wait();

 private:
  ChildProcess(pid_t pid, int output_fd, int exit_fd);
  void CloseStreams() noexcept;
  std::optional<ChildExit> Reap(bool block);
  void Release() noexcept;

  pid_t pid_ = 0;
  int output_fd_ = -1;
  int exit_fd_ = -1;
  int input_fd_ = -1;
  int error_fd_ = -1;
  bool tracked_ = false;  // started with track_descendants
  std::optional<ChildExit> exit_;
};

}  // namespace pelmora

#endif  // PELMORA_COMMON_CHILD_PROCESS_H_
