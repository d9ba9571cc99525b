#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/sched/task_runner.h"
#include "tools/pelmora/commands.h"

namespace pelmora_tool {
namespace {

// Runs `pelmora tasks ARGS --folder FOLDER`; returns the exit status and the standard output.
int Tasks(std::vector<std::string> args, const std::string& folder, std::string* out = nullptr) {
  CLI::App app;
  CommandAction action;
  AddTasksCommand(app, action);
  args.insert(args.begin(), "tasks");
  args.push_back("--folder");
  args.push_back(folder);
  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::ParseError&) {
    return 2;
  }
  ::testing::internal::CaptureStdout();
  int status = action();
  std::string printed = ::testing::internal::GetCapturedStdout();
  if (out != nullptr) *out = printed;
  return status;
}

TEST(TasksCommand, CreatesRunsShowsAndRemovesATask) {
  pelmora::internal::ScratchFolder folder;
  ASSERT_EQ(Tasks({"create", "nightly", "--app", "/bin/sh", "--params", "-c \"exit 3\"",
                   "--trigger", "weekly mon,fri 02:30", "--comment", "hi"},
                  folder.Path()),
            0);
  std::string listed;
  ASSERT_EQ(Tasks({"list"}, folder.Path(), &listed), 0);
  EXPECT_EQ(listed.substr(0, 11), "nightly.job");
  EXPECT_NE(listed.find("HasNotRun"), std::string::npos);
  ASSERT_EQ(Tasks({"run", "nightly"}, folder.Path()), 0);
  std::string shown;
  ASSERT_EQ(Tasks({"show", "NIGHTLY"}, folder.Path(), &shown), 0);
  EXPECT_NE(shown.find("Exit code: 3\n"), std::string::npos);
  EXPECT_NE(shown.find("State: Ready (267008)\n"), std::string::npos);
  EXPECT_NE(shown.find("Trigger: weekly mon,fri 02:30 from "), std::string::npos);
  EXPECT_NE(shown.find("Comment: hi\n"), std::string::npos);
  ASSERT_EQ(Tasks({"set", "nightly", "--disabled", "--no-triggers"}, folder.Path()), 0);
  ASSERT_EQ(Tasks({"show", "nightly"}, folder.Path(), &shown), 0);
  EXPECT_NE(shown.find("Flags: 4\n"), std::string::npos);
  EXPECT_EQ(shown.find("Trigger:"), std::string::npos);
  EXPECT_EQ(Tasks({"rm", "nightly"}, folder.Path()), 0);
  EXPECT_EQ(Tasks({"rm", "nightly"}, folder.Path()), 1);
}

TEST(TasksCommand, UsageErrorsExitWith2) {
  pelmora::internal::ScratchFolder folder;
  EXPECT_EQ(Tasks({"create", "x"}, folder.Path()), 2);  // no --app
  EXPECT_EQ(Tasks({"create", "x", "--app", "/bin/true", "--trigger", "hourly"}, folder.Path()), 2);
  EXPECT_EQ(Tasks({"show"}, folder.Path()), 2);  // no name
  EXPECT_EQ(Tasks({"stop", "missing"}, folder.Path()), 1);
}


TEST(TasksCommand, CreateWarnsWhenNoRunnerWatchesTheFolder) {
  pelmora::internal::ScratchFolder folder;
  struct Case {
    bool runner;
    bool warned;
  } cases[] = {{false, true}, {true, false}};
  for (const Case& c : cases) {
    std::optional<pelmora::sched::TaskRunner> runner;
    if (c.runner) {
      runner.emplace(pelmora::sched::TaskRunnerOptions{.folder = folder.Path(), .run_at_start = false});
      runner->Start();
    }
    ::testing::internal::CaptureStderr();
    std::string name = c.runner ? "watched" : "unwatched";
    EXPECT_EQ(Tasks({"create", name, "--app", "/bin/true"}, folder.Path()), 0) << name;
    std::string warning = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(warning.find("warning: no task runner watches " + folder.Path()) != std::string::npos,
              c.warned)
        << warning;
    if (runner) runner->Stop();
  }
}

}  // namespace
}  // namespace pelmora_tool
