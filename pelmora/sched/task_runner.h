// TaskRunner: fires the tasks of a task folder at their trigger times. The service hosts one;
// tests drive one with a fake clock.
//
//   TaskRunner runner(TaskRunnerOptions{.folder = "/var/lib/pelmora/tasks"});
//   runner.Start();      // watches the folder on a thread of its own
//   ...
//   runner.Stop();       // kills what still runs and records it as terminated
//
// The runner watches the folder with inotify, so a task saved, changed or deleted takes effect at
// once; it fires each enabled task at the next run of its time triggers (in local time), and
// tasks with an "at system start" trigger when it starts. A run starts the task's program as
// its user (ChildProcess), kills it and every process it started (however detached) after
// MaxRunTime, retries a run that failed
// (could not start, or ended with a non-zero exit code) ErrorRetryCount times ErrorRetryInterval
// minutes apart, deletes a DeleteWhenDone task with no further runs, and keeps the task file's
// state bytes (running count, last run, exit code, status, start error) up to date in place.
// Run and Terminate requests arrive as flag bits in the file. While it runs it holds an exclusive
// lock on RunnerLockPath(folder), which is how Task::Run knows a runner is watching.
#ifndef PELMORA_SCHED_TASK_RUNNER_H_
#define PELMORA_SCHED_TASK_RUNNER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "pelmora/platform/export.h"

namespace pelmora::sched {

struct PELMORA_API TaskRunnerOptions {
  // The task folder; "" is DefaultTasksFolder(). Created when missing.
  std::string folder = {};
  // Milliseconds since 1970-01-01 UTC; empty: the system clock. After moving a fake clock, call
  // Wake so the runner looks at it at once (it looks at least once a second anyway).
  std::function<int64_t()> clock_ms = nullptr;
  // Whether Start fires the tasks that have an enabled "at system start" trigger.
  bool run_at_start = true;
  // How long Start waits for the folder's runner lock before refusing with 32; 0 refuses at
  // once. A service restarted right after a crash gives a process that the crashed one had just
  // forked (and that still shares the lock) this long to go.
  int lock_wait_ms = 0;
};

class PELMORA_API TaskRunner {
 public:
  explicit TaskRunner(TaskRunnerOptions options);
  // Stops the runner when it still runs.
  ~TaskRunner();
  TaskRunner(const TaskRunner&) = delete;
  TaskRunner& operator=(const TaskRunner&) = delete;

  // Takes the folder's runner lock, reads every task and starts watching. Raises pelmora::Error
  // (source "TaskRunner") when the folder cannot be created or watched (the errno's system
  // text) or another runner holds the lock for longer than lock_wait_ms (32, the sharing
  // violation text). Blocks only for the initial read and that wait.
  void Start();

  // Stops watching, kills the runs in progress with every process they started and records them as
  // terminated, and releases the lock. Blocks until the runs are reaped.
  void Stop();

  // Makes the runner read its clock and look at its tasks now. Never blocks.
  void Wake();

  // Runs started and runs finished since Start (for monitoring and tests).
  int RunsStarted() const { return runs_started_.load(); }
  int RunsFinished() const { return runs_finished_.load(); }

 private:
  class Loop;

  TaskRunnerOptions options_;
  std::unique_ptr<Loop> loop_;
  std::thread thread_;
  std::atomic<int> runs_started_{0};
  std::atomic<int> runs_finished_{0};
};

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_TASK_RUNNER_H_
