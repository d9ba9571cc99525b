#include "tests/cli/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace pelmora_cli_test {
namespace {

using Clock = std::chrono::steady_clock;

// argv or envp storage that outlives the fork.
struct CStrings {
  explicit CStrings(const std::vector<std::string>& items) : items_(items) {
    for (std::string& item : items_) pointers_.push_back(item.data());
    pointers_.push_back(nullptr);
  }
  char** Get() { return pointers_.data(); }

 private:
  std::vector<std::string> items_;
  std::vector<char*> pointers_;
};

std::vector<std::string> Environment(const std::vector<std::pair<std::string, std::string>>& env) {
  std::vector<std::string> out;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    bool replaced = false;
    for (const auto& [name, value] : env) replaced |= entry.rfind(name + "=", 0) == 0;
    if (!replaced) out.push_back(entry);
  }
  for (const auto& [name, value] : env) out.push_back(name + "=" + value);
  return out;
}

// In the child, before exec: only async-signal-safe calls.
[[noreturn]] void ExecChild(char** argv, char** envp, const char* input) {
  int null = open(input, O_RDONLY);
  dup2(null, STDIN_FILENO);
  execve(argv[0], argv, envp);
  _exit(127);
}

}  // namespace

std::string ToolPath() {
  const char* path = std::getenv("PELMORA_TOOL");
  return path == nullptr ? "pelmora" : path;
}

ChildProcess::ChildProcess(std::vector<std::string> args,
                           std::vector<std::pair<std::string, std::string>> env, Attach attach,
                           std::string program, std::string input_file) {
  if (input_file.empty()) input_file = "/dev/null";
  args.insert(args.begin(), program.empty() ? ToolPath() : program);
  CStrings argv(args);
  CStrings envp(Environment(env));
  if (attach == Attach::kTerminal) {
    pid_ = forkpty(&out_fd_, nullptr, nullptr, nullptr);
    if (pid_ == 0) ExecChild(argv.Get(), envp.Get(), input_file.c_str());
  } else {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      if (attach == Attach::kPipesNoTerminal) setsid();
      dup2(out[1], STDOUT_FILENO);
      dup2(err[1], STDERR_FILENO);
      ExecChild(argv.Get(), envp.Get(), input_file.c_str());
    }
    close(out[1]);
    close(err[1]);
    out_fd_ = out[0];
    err_fd_ = err[0];
  }
  if (pid_ < 0) std::abort();
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_fd_ >= 0) close(out_fd_);
  if (err_fd_ >= 0) close(err_fd_);
}

bool ChildProcess::ReadSome(Clock::time_point deadline) {
  std::vector<pollfd> fds;
  if (out_fd_ >= 0) fds.push_back({out_fd_, POLLIN, 0});
  if (err_fd_ >= 0) fds.push_back({err_fd_, POLLIN, 0});
  if (fds.empty()) return false;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  if (left.count() <= 0) return false;
  if (poll(fds.data(), fds.size(), static_cast<int>(left.count())) <= 0) return false;
  for (const pollfd& p : fds) {
    if (p.revents == 0) continue;
    char buffer[4096];
    ssize_t n = read(p.fd, buffer, sizeof buffer);
    std::string& sink = p.fd == out_fd_ ? result_.out : result_.err;
    if (n > 0) {
      sink.append(buffer, static_cast<size_t>(n));
      continue;
    }
    // End of the stream (a pseudo-terminal reports EIO once the child has gone).
    close(p.fd);
    (p.fd == out_fd_ ? out_fd_ : err_fd_) = -1;
  }
  return true;
}

bool ChildProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds limit) {
  Clock::time_point deadline = Clock::now() + limit;
  while (result_.out.find(text) == std::string::npos) {
    if (!ReadSome(deadline)) return false;
  }
  return true;
}

bool ChildProcess::Type(const std::string& text) {
  return out_fd_ >= 0 && err_fd_ < 0 &&
         write(out_fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

ChildProcess::Result ChildProcess::Finish(std::chrono::milliseconds limit) {
  Clock::time_point deadline = Clock::now() + limit;
  while (ReadSome(deadline)) {
  }
  if (out_fd_ >= 0 || err_fd_ >= 0) kill(pid_, SIGKILL);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  result_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result_;
}

}  // namespace pelmora_cli_test
