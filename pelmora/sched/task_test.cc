#include "pelmora/sched/task.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>

#include "pelmora/common/error.h"
#include "pelmora/common/internal/platform.h"
#include "pelmora/sched/internal/file_io.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/sched/internal/time_zone_for_test.h"
#include "pelmora/sched/sched_errors.h"
#include "pelmora/sched/task_scheduler.h"
#include "pelmora/sched/trigger.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

using pelmora::testing::RaisedError;
using sched::testing::At;
using pelmora::internal::ScratchFolder;

class TaskTest : public ::testing::Test {
 protected:
  ~TaskTest() override { internal::SetClockForTesting(nullptr); }

  std::shared_ptr<Task> Added(const std::string& name, const std::string& trigger_text = "") {
    auto task = scheduler_.CreateTask(name);
    task->SetApplicationName("/bin/sh");
    if (!trigger_text.empty()) {
      task->SetTriggers({*sched::ParseTrigger(trigger_text, Date::Now())});
    }
    scheduler_.Add(task);
    return task;
  }
  sched::JobFile OnDisk(const std::string& file_name) {
    std::string bytes;
    sched::internal::ReadWholeFile(folder_.Path() + "/" + file_name, 1 << 20, bytes);
    return sched::ParseJobFile(bytes).value_or(sched::JobFile{});
  }
  void PatchState(const std::string& file_name, const sched::JobState& state) {
    sched::internal::PatchFile(folder_.Path() + "/" + file_name, sched::kJobStateOffset,
                               sched::SerializeJobState(state));
  }

  ScratchFolder folder_;
  TaskScheduler scheduler_{sched::OpenLocalTaskStore(folder_.Path())};
};

TEST_F(TaskTest, NewTaskHasThePlatformDefaults) {
  auto task = scheduler_.CreateTask("fresh");
  EXPECT_EQ(task->flags(), 0);
  EXPECT_EQ(task->State(), TaskStatus::NotScheduled);
  EXPECT_EQ(task->Priority(), 0x20);
  EXPECT_EQ(task->MaxRunTime(), 259200000);
  EXPECT_EQ(task->ExitCode(), 0);
  EXPECT_TRUE(task->LastRunTime().IsEmpty());
  EXPECT_TRUE(task->NextRunTime().IsEmpty());
  EXPECT_TRUE(task->Enabled());
  for (const std::string& text : {task->ApplicationName(), task->CommandLine(), task->Comment(),
                                  task->Creator(), task->WorkingDirectory()}) {
    EXPECT_EQ(text, "");
  }
  EXPECT_EQ(task->Name(), "fresh");
  EXPECT_EQ(task->FileName(), folder_.Path() + "/fresh.job");
  Error e = RaisedError([&] { task->GetAccountInfo(); });
  EXPECT_EQ(e.Number(), -2147024894);
  EXPECT_EQ(e.Source(), "Pelmora.Task");
}

TEST_F(TaskTest, FlagsKeepTheLow15BitsAndEnabledOnlyTheDisabledBit) {
  auto task = scheduler_.CreateTask("f");
  task->Setflags(-1);
  EXPECT_EQ(task->flags(), 0x7FFF);
  task->Setflags(0x9234);
  EXPECT_EQ(task->flags(), 0x1234);
  task->Setflags(static_cast<int32_t>(TaskFlags::Interactive));
  task->SetEnabled(false);
  EXPECT_EQ(task->flags(), 5);
  EXPECT_FALSE(task->Enabled());
  task->SetEnabled(true);
  EXPECT_EQ(task->flags(), 1);
}

TEST_F(TaskTest, InvalidPriorityAndNegativeRetriesRaise) {
  auto task = scheduler_.CreateTask("p");
  Error e = RaisedError([&] { task->SetPriority(0x21); });
  EXPECT_EQ(e.Number(), -2147024809);
  EXPECT_EQ(e.Description(), "The parameter is incorrect.");
  task->SetPriority(0x40);
  EXPECT_EQ(task->Priority(), 0x40);
  EXPECT_EQ(RaisedError([&] { task->SetErrorRetryCount(-1); }).Number(), 380);
}

TEST_F(TaskTest, SavedPropertiesReadBackThroughItem) {
  auto task = Added("kept", "daily 03:00");
  task->SetCommandLine("-c \"exit 3\"");
  task->SetComment("nightly");
  task->SetCreator("ops");
  task->SetWorkingDirectory("/tmp");
  task->SetMaxRunTime(-1);
  task->SetErrorRetryCount(2);
  task->SetErrorRetryInterval(5);
  task->SetAccountInfo("nobody", "secret");
  task->Save();
  auto again = scheduler_.Item("kept");
  EXPECT_EQ(again->CommandLine(), "-c \"exit 3\"");
  EXPECT_EQ(again->Comment(), "nightly");
  EXPECT_EQ(again->Creator(), "ops");
  EXPECT_EQ(again->WorkingDirectory(), "/tmp");
  EXPECT_EQ(again->MaxRunTime(), -1);
  EXPECT_EQ(again->ErrorRetryCount(), 2);
  EXPECT_EQ(again->ErrorRetryInterval(), 5);
  EXPECT_EQ(again->GetAccountInfo(), "nobody");
  EXPECT_EQ(again->State(), TaskStatus::HasNotRun);
  std::string bytes;
  sched::internal::ReadWholeFile(again->FileName(), 1 << 20, bytes);
  EXPECT_EQ(bytes.find("secret"), std::string::npos);
}

TEST_F(TaskTest, SaveKeepsTheRunStateTheRunnerWrote) {
  auto task = Added("busy", "daily 03:00");
  PatchState("busy.job", {9, sched::kSchedTaskRunning, 0, {2026, 11, 1, 23, 3, 0, 0, 0}, 1});
  task->SetComment("changed while running");
  task->Save();
  sched::JobFile disk = OnDisk("busy.job");
  EXPECT_EQ(disk.exit_code, 9u);
  EXPECT_EQ(disk.instance_count, 1);
  EXPECT_EQ(disk.comment, "changed while running");
  EXPECT_EQ(task->State(), TaskStatus::Running);
}

TEST_F(TaskTest, ExitCodeAbove32767Overflows) {
  auto task = Added("big", "daily 03:00");
  PatchState("big.job", {40000, sched::kSchedTaskReady, 0, {2026, 11, 1, 23, 3, 0, 0, 0}, 0});
  Error e = RaisedError([&] { scheduler_.Item("big")->ExitCode(); });
  EXPECT_EQ(e.Number(), 6);
  EXPECT_EQ(e.Description(), "Overflow");
  PatchState("big.job", {32767, sched::kSchedTaskReady, 0, {2026, 11, 1, 23, 3, 0, 0, 0}, 0});
  EXPECT_EQ(scheduler_.Item("big")->ExitCode(), 32767);
  EXPECT_EQ(scheduler_.Item("big")->LastRunTime().Format("yyyy-mm-dd hh:nn"), "2026-11-23 03:00");
}

TEST_F(TaskTest, NextRunTimeFollowsTheTriggersAndIsEmptyWhenDisabled) {
  sched::testing::ScopedTimeZone zone("America/New_York");
  internal::SetClockForTesting([] { return At("2026-03-07 12:00"); });
  auto task = Added("dst", "daily 02:30 from 2026-03-01");
  EXPECT_EQ(task->NextRunTime().Format("yyyy-mm-dd hh:nn"), "2026-03-08 02:30");
  task->SetEnabled(false);
  EXPECT_TRUE(task->NextRunTime().IsEmpty());
  EXPECT_EQ(task->State(), TaskStatus::Disabled);
  task->SetEnabled(true);
  task->SetTriggers({*sched::ParseTrigger("atstart", Date::Now())});
  EXPECT_TRUE(task->NextRunTime().IsEmpty());
}

TEST_F(TaskTest, RunAndTerminateRefuseTasksThatCannotRun) {
  auto unscheduled = Added("idle");
  Error e = RaisedError([&] { unscheduled->Run(); });
  EXPECT_EQ(e.Number(), -2147216630);
  EXPECT_EQ(e.Description(),
            "One or more of the properties needed to run this task have not been set.");
  Error t = RaisedError([&] { unscheduled->Terminate(); });
  EXPECT_EQ(t.Number(), -2147216629);
  EXPECT_EQ(t.Description(), "There is no running instance of the task.");
  EXPECT_EQ(RaisedError([&] { unscheduled->ShowProperties(0); }).Number(),
            static_cast<int32_t>(sched::kNotImplemented));
}

TEST_F(TaskTest, RunWithARunnerWatchingLeavesARequestInTheFile) {
  auto task = Added("asked", "daily 03:00");
  int lock =
      open(sched::RunnerLockPath(folder_.Path()).c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
  ASSERT_GE(lock, 0);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  task->Run();
  EXPECT_EQ(OnDisk("asked.job").flags & sched::kRunRequestFlag, sched::kRunRequestFlag);
  PatchState("asked.job", {0, sched::kSchedTaskRunning, 0, {2026, 11, 1, 23, 3, 0, 0, 0}, 1});
  task->Terminate();
  EXPECT_EQ(OnDisk("asked.job").flags & sched::kTerminateRequestFlag, sched::kTerminateRequestFlag);
  EXPECT_EQ(task->flags(), 0);  // the request bits are not public flags
  close(lock);
}

TEST_F(TaskTest, RunWithNoRunnerRunsHereAndRecordsTheResult) {
  auto task = Added("here", "daily 03:00");
  task->SetCommandLine("-c \"exit 7\"");
  task->Save();
  task->Run();
  EXPECT_EQ(task->ExitCode(), 7);
  EXPECT_EQ(task->State(), TaskStatus::Ready);
  EXPECT_FALSE(task->LastRunTime().IsEmpty());
  EXPECT_EQ(OnDisk("here.job").instance_count, 0);
}

TEST_F(TaskTest, RunKillsTheProgramAfterMaxRunTime) {
  auto task = Added("slow", "daily 03:00");
  task->SetCommandLine("-c \"sleep 30\"");
  task->SetMaxRunTime(200);
  task->Save();
  auto started = std::chrono::steady_clock::now();
  task->Run();
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
  EXPECT_EQ(task->State(), TaskStatus::Terminated);
  EXPECT_EQ(task->ExitCode(), 128 + 9);
}

TEST_F(TaskTest, RunThatCannotStartRaisesItsStartErrorFromExitCode) {
  auto task = Added("nowhere", "daily 03:00");
  task->SetWorkingDirectory(folder_.Path() + "/missing");
  task->Save();
  task->Run();
  Error e = RaisedError([&] { task->ExitCode(); });
  EXPECT_EQ(e.Number(), -2147024629);  // from Win32 error 267
  EXPECT_EQ(e.Description(), "The directory name is invalid.");
}

TEST_F(TaskTest, DeleteWhenDoneRemovesATaskWithNoFurtherRuns) {
  auto task = Added("once", "once 2020-01-01 00:00");
  task->Setflags(static_cast<int32_t>(TaskFlags::DeleteWhenDone));
  task->SetCommandLine("-c true");
  task->Save();
  task->Run();
  EXPECT_FALSE(std::filesystem::exists(task->FileName()));
}

}  // namespace
}  // namespace pelmora
