#include "pelmora/sched/task_execution.h"

#include <gtest/gtest.h>

namespace pelmora::sched {
namespace {

struct SplitCase {
  const char* parameters;
  std::vector<std::string> words;
};

TEST(TaskExecution, ParametersSplitLikeAProgramStartUp) {
  const SplitCase cases[] = {
      {"", {}},
      {"  a  b\tc ", {"a", "b", "c"}},
      {"\"two words\" x", {"two words", "x"}},
      {"a\"b c\"d", {"ab cd"}},
      {"\\\"quoted\\\"", {"\"quoted\""}},
      {"path\\\\\" x\"", {"path\\ x"}},
      {"back\\slash", {"back\\slash"}},
      {"\"\"", {""}},
  };
  for (const SplitCase& c : cases)
    EXPECT_EQ(SplitParameters(c.parameters), c.words) << c.parameters;
}

TEST(TaskExecution, ShellQuotingLeavesSafeWordsBareAndQuotesTheRest) {
  EXPECT_EQ(ShellQuote("/usr/bin/backup"), "/usr/bin/backup");
  EXPECT_EQ(ShellQuote(""), "''");
  EXPECT_EQ(ShellQuote("a b"), "'a b'");
  EXPECT_EQ(ShellQuote("$(rm -rf /);`x`"), "'$(rm -rf /);`x`'");
  EXPECT_EQ(ShellQuote("it's"), "'it'\\''s'");
}

TEST(TaskExecution, CommandLineQuotesTheApplicationAndEachParameter) {
  JobFile job;
  job.application_name = "/opt/my tools/run";
  job.parameters = "--name \"a b\" $HOME";
  EXPECT_EQ(TaskCommandLine(job), "exec '/opt/my tools/run' --name 'a b' '$HOME'");
}

}  // namespace
}  // namespace pelmora::sched
