// A child process for the tool's end-to-end tests: the `pelmora` binary run with arguments and
// extra environment, its standard output and error read through pipes (or both through one
// pseudo-terminal), every wait bounded.
//
//   ChildProcess tool({"admin", "--port", "8002", "time"}, {{"PELMORA_HOME", home}});
//   EXPECT_TRUE(tool.WaitForOutput("line 1\n", std::chrono::seconds(10)));
//   ChildProcess::Result result = tool.Finish(std::chrono::seconds(10));
#ifndef TESTS_CLI_CHILD_PROCESS_H_
#define TESTS_CLI_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace pelmora_cli_test {

// How the child is attached.
enum class Attach {
  kPipes,           // standard output and error on two pipes, the test's controlling terminal
  kPipesNoTerminal, // as kPipes, in a new session without a controlling terminal
  kTerminal,        // standard output and error on one pseudo-terminal
};

class ChildProcess {
 public:
  struct Result {
    int status = -1;  // the exit status, or 128 + signal
    std::string out;  // standard output (everything, with kTerminal)
    std::string err;
  };

  // Starts `program` (the tool when empty: $PELMORA_TOOL) with `args`, the test's environment
  // plus `env`, standard input from `input_file` (/dev/null when empty). Aborts the test
  // program when it cannot fork.
  ChildProcess(std::vector<std::string> args,
               std::vector<std::pair<std::string, std::string>> env = {},
               Attach attach = Attach::kPipes, std::string program = "",
               std::string input_file = "");
  // Kills the child if it is still running.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Reads standard output until it contains `text`; false when `limit` passes or it ends first.
  bool WaitForOutput(const std::string& text, std::chrono::milliseconds limit);

  // Types `text` on the pseudo-terminal (kTerminal only), as a user at the keyboard would; false
  // when it cannot be written.
  bool Type(const std::string& text);

  // Reads both streams to their end and waits for the exit; after `limit` the child is killed
  // (status 128 + 9).
  Result Finish(std::chrono::milliseconds limit);

 private:
  bool ReadSome(std::chrono::steady_clock::time_point deadline);

  pid_t pid_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
  Result result_;
};

// The path of the tool under test ($PELMORA_TOOL).
std::string ToolPath();

}  // namespace pelmora_cli_test

#endif  // TESTS_CLI_CHILD_PROCESS_H_
