// pelmorad-keeper: started by pelmorad as `pelmorad-keeper -c LINE` with the real shell in
// PELMORAD_COMMAND_SHELL, or as `pelmorad-keeper -- PROGRAM ARGS...` for a command given as an
// argument vector (PROGRAM a path). It marks itself a child subreaper, so every process the command
// starts stays beneath it however it detaches (setsid, double forks), runs the command, reaps
// whatever ends beneath it, and exits as the command did: with its exit code, or by raising the
// signal that ended it. Only the C library, so that it starts in no time.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
  // The shell's path is copied before unsetenv may take the variable's text away.
  static char shell_path[4096];
  const char* given = std::getenv("PELMORAD_COMMAND_SHELL");
  char* shell = nullptr;
  if (given != nullptr && std::strlen(given) < sizeof(shell_path)) {
    shell = std::strcpy(shell_path, given);
  }
  ::unsetenv("PELMORAD_COMMAND_SHELL");
  char* shell_argv[] = {shell, const_cast<char*>("-c"), nullptr, nullptr};
  char** command = nullptr;
  if (argc == 3 && std::strcmp(argv[1], "-c") == 0 && shell != nullptr) {
    shell_argv[2] = argv[2];
    command = shell_argv;
  } else if (argc >= 3 && std::strcmp(argv[1], "--") == 0) {
    command = argv + 2;
  } else {
    return 127;
  }
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  pid_t child = ::fork();
  if (child < 0) return 127;
  if (child == 0) {
    ::execv(command[0], command);
    _exit(127);
  }
  // Reap everything that ends beneath the keeper until the shell itself has ended; what the
  // shell left in the background then goes on without the keeper, as it would without it.
  while (true) {
    int status = 0;
    pid_t ended = ::waitpid(-1, &status, 0);
    if (ended < 0 && errno == EINTR) continue;
    if (ended < 0) return 127;
    if (ended != child) continue;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    ::signal(WTERMSIG(status), SIG_DFL);
    ::raise(WTERMSIG(status));
    return 128 + WTERMSIG(status);
  }
}
