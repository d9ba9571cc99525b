#include "pelmora/sched/task_runner.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "pelmora/common/error.h"
#include "pelmora/sched/internal/file_io.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/sched/internal/time_zone_for_test.h"
#include "pelmora/sched/sched_errors.h"
#include "pelmora/sched/task_scheduler.h"
#include "pelmora/sched/trigger.h"
#include "pelmora/testing/process_ends.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora::sched {
namespace {

using std::chrono::steady_clock;
using pelmora::testing::ProcessEnds;
using testing::At;
using testing::ScopedTimeZone;
using pelmora::internal::ScratchFolder;

class TaskRunnerTest : public ::testing::Test {
 protected:
  TaskRunnerTest() {
    watch_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    inotify_add_watch(watch_, folder_.Path().c_str(), IN_ALL_EVENTS);
  }
  ~TaskRunnerTest() override { close(watch_); }

  // Waits for `done`, looking again after every change in the folder; at most ten seconds.
  bool WaitUntil(const std::function<bool()>& done) {
    auto deadline = steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
      if (steady_clock::now() > deadline) return false;
      pollfd fd{watch_, POLLIN, 0};
      poll(&fd, 1, 100);
      char buffer[4096];
      while (read(watch_, buffer, sizeof buffer) > 0) {
      }
    }
    return true;
  }

  std::shared_ptr<Task> Add(const std::string& name, const std::string& params,
                            const std::string& trigger) {
    auto task = scheduler_.CreateTask(name);
    task->SetApplicationName("/bin/sh");
    task->SetCommandLine(params);
    task->SetTriggers({*ParseTrigger(trigger, At("2026-11-01 00:00"))});
    return task;
  }

  JobFile OnDisk(const std::string& name) {
    std::string bytes;
    internal::ReadWholeFile(folder_.Path() + "/" + name, 1 << 20, bytes);
    return ParseJobFile(bytes).value_or(JobFile{});
  }

  int64_t MsOf(const char* local) { return At(local).ToUnixTime() * 1000; }

  ScopedTimeZone zone_{"UTC"};
  ScratchFolder folder_;
  TaskScheduler scheduler_{OpenLocalTaskStore(folder_.Path())};
  std::atomic<int64_t> now_{0};
  int watch_ = -1;
};

TEST_F(TaskRunnerTest, FiresADueTaskWithinASecondAndRecordsTheRun) {
  scheduler_.Add(Add("tick", "-c \"exit 4\"", "daily 02:30 from 2026-11-01"));
  std::ofstream(folder_.Path() + "/hostile.job") << "\x01\x00\x01\x00 short";
  now_ = MsOf("2026-11-23 02:29:59") + 500;
  TaskRunner runner({.folder = folder_.Path(), .clock_ms = [this] { return now_.load(); }});
  runner.Start();
  EXPECT_EQ(runner.RunsStarted(), 0);
  now_ = MsOf("2026-11-23 02:30:00");
  auto woken = steady_clock::now();
  runner.Wake();
  ASSERT_TRUE(WaitUntil([&] { return runner.RunsFinished() == 1; }));
  EXPECT_LT(steady_clock::now() - woken, std::chrono::seconds(1));
  JobFile job = OnDisk("tick.job");
  EXPECT_EQ(job.exit_code, 4u);
  EXPECT_EQ(job.status, kSchedTaskReady);
  EXPECT_EQ(job.instance_count, 0);
  EXPECT_EQ(StartError(job), 0u);
  EXPECT_EQ((SystemTime{2026, 11, 1, 23, 2, 30, 0, 0}), job.last_run);
  EXPECT_EQ(scheduler_.Item("tick")->LastRunTime().Format("yyyy-mm-dd hh:nn:ss"),
            "2026-11-23 02:30:00");
}

TEST_F(TaskRunnerTest, SkipsDisabledTasksAndDeletesDoneTasks) {
  auto off = Add("off", "-c true", "daily 03:00 from 2026-11-01");
  off->SetEnabled(false);
  scheduler_.Add(off);
  auto once = Add("once", "-c true", "once 2026-11-23 03:00");
  once->Setflags(static_cast<int32_t>(TaskFlags::DeleteWhenDone));
  scheduler_.Add(once);
  now_ = MsOf("2026-11-23 02:59:00");
  TaskRunner runner({.folder = folder_.Path(), .clock_ms = [this] { return now_.load(); }});
  runner.Start();
  now_ = MsOf("2026-11-23 03:00:00");
  runner.Wake();
  ASSERT_TRUE(WaitUntil([&] { return !std::filesystem::exists(folder_.Path() + "/once.job"); }));
  EXPECT_EQ(runner.RunsStarted(), 1);
  EXPECT_TRUE(OnDisk("off.job").last_run.IsZero());
}

TEST_F(TaskRunnerTest, KillsARunPastMaxRunTime) {
  auto slow = Add("slow", "-c \"sleep 30\"", "daily 03:00");
  slow->SetMaxRunTime(300);
  scheduler_.Add(slow);
  TaskRunner runner({.folder = folder_.Path()});
  runner.Start();
  auto started = steady_clock::now();
  slow->Run();  // a request through the file: the runner watches
  ASSERT_TRUE(WaitUntil([&] { return runner.RunsFinished() == 1; }));
  EXPECT_LT(steady_clock::now() - started, std::chrono::seconds(5));
  EXPECT_EQ(OnDisk("slow.job").status, kSchedTaskTerminated);
  EXPECT_EQ(scheduler_.Item("slow")->ExitCode(), 128 + 9);
}

TEST_F(TaskRunnerTest, RunAndTerminateTravelThroughTheFile) {
  scheduler_.Add(Add("long", "-c \"sleep 30\"", "daily 03:00"));
  TaskRunner runner({.folder = folder_.Path()});
  runner.Start();
  scheduler_.Item("long")->Run();
  ASSERT_TRUE(WaitUntil([&] { return OnDisk("long.job").instance_count == 1; }));
  EXPECT_EQ(scheduler_.Item("long")->State(), TaskStatus::Running);
  EXPECT_EQ(OnDisk("long.job").flags & kRunRequestFlag, 0u);
  scheduler_.Item("long")->Terminate();
  ASSERT_TRUE(WaitUntil([&] { return runner.RunsFinished() == 1; }));
  JobFile job = OnDisk("long.job");
  EXPECT_EQ(job.status, kSchedTaskTerminated);
  EXPECT_EQ(job.instance_count, 0);
  EXPECT_EQ(job.flags & (kRunRequestFlag | kTerminateRequestFlag), 0u);
}

TEST_F(TaskRunnerTest, RetriesAFailedRunErrorRetryCountTimes) {
  auto failing = Add("failing", "-c \"exit 1\"", "daily 03:00");
  failing->SetErrorRetryCount(2);
  failing->SetErrorRetryInterval(0);
  scheduler_.Add(failing);
  TaskRunner runner({.folder = folder_.Path()});
  runner.Start();
  failing->Run();
  ASSERT_TRUE(WaitUntil([&] { return runner.RunsFinished() == 3; }));
  EXPECT_EQ(runner.RunsStarted(), 3);
  EXPECT_EQ(OnDisk("failing.job").exit_code, 1u);
}

TEST_F(TaskRunnerTest, StartFiresSystemStartTasksAndOneRunnerHoldsTheFolder) {
  scheduler_.Add(Add("boot", "-c true", "atstart"));
  TaskRunner runner({.folder = folder_.Path()});
  runner.Start();
  ASSERT_TRUE(WaitUntil([&] { return runner.RunsFinished() == 1; }));
  TaskRunner second({.folder = folder_.Path()});
  Error e = pelmora::testing::RaisedError([&] { second.Start(); });
  EXPECT_EQ(e.Number(), 32);
  EXPECT_EQ(e.Description(),
            "The process cannot access the file because it is being used by another process.");
  runner.Stop();
  EXPECT_NO_THROW(second.Start());
}

TEST_F(TaskRunnerTest, StopKillsRunsInProgressAndRecordsThemAsTerminated) {
  scheduler_.Add(Add("held", "-c \"sleep 30\"", "daily 03:00"));
  TaskRunner runner({.folder = folder_.Path()});
  runner.Start();
  scheduler_.Item("held")->Run();
  ASSERT_TRUE(WaitUntil([&] { return OnDisk("held.job").instance_count == 1; }));
  runner.Stop();
  EXPECT_EQ(OnDisk("held.job").status, kSchedTaskTerminated);
  EXPECT_EQ(OnDisk("held.job").instance_count, 0);
}

// However a run ends before its program does (MaxRunTime, a Terminate request, the runner's
// stop), a process the task detached from its group (setsid, then a double fork) ends with it.
TEST_F(TaskRunnerTest, EndingARunKillsWhatItDetached) {
  enum class End { kMaxRunTime, kTerminate, kStop };
  const struct {
    const char* name;
    End end;
  } cases[] = {{"max run time", End::kMaxRunTime}, {"terminate", End::kTerminate},
               {"stop", End::kStop}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    std::string pid_file = folder_.Path() + "/detached.pid";
    std::filesystem::remove(pid_file);
    auto task = Add("detaching",
                    "-c \"(setsid sh -c 'echo $$ > " + pid_file +
                        ".new && mv " + pid_file + ".new " + pid_file +
                        "; exec sleep 60' &); sleep 60\"",
                    "daily 03:00");
    if (test.end == End::kMaxRunTime) task->SetMaxRunTime(1000);
    scheduler_.Add(task);
    // A fake clock, so that the maximum run time passes only once the process has detached.
    now_ = MsOf("2026-11-23 02:00:00");
    TaskRunner runner({.folder = folder_.Path(), .clock_ms = [this] { return now_.load(); }});
    runner.Start();
    task->Run();
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(pid_file); }));
    std::string text;
    internal::ReadWholeFile(pid_file, 64, text);
    pid_t detached = std::atoi(text.c_str());
    ASSERT_GT(detached, 0);
    if (test.end == End::kMaxRunTime) {
      now_ += 2000;
      runner.Wake();
    }
    if (test.end == End::kTerminate) task->Terminate();
    if (test.end == End::kStop) runner.Stop();
    ASSERT_TRUE(WaitUntil([&] { return runner.RunsFinished() == 1; }));
    EXPECT_EQ(OnDisk("detaching.job").status, kSchedTaskTerminated);
    EXPECT_TRUE(ProcessEnds(detached, 10000));
    if (!ProcessEnds(detached, 0)) kill(detached, SIGKILL);
    runner.Stop();
    scheduler_.Remove("detaching");
  }
}

}  // namespace
}  // namespace pelmora::sched
