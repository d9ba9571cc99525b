// The service's task runner: a task saved and started from another machine (through the
// administration client's file requests on the "Tasks" path key) runs on the service's machine.
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "gtest/gtest.h"
#include "pelmora/common/date.h"
#include "pelmora/sched/task.h"
#include "pelmora/sched/task_scheduler.h"
#include "pelmora/sched/trigger.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

// Writes the shell script `text` to `script` and saves, through the service's file requests, a
// daily task named `name` that runs it.
std::shared_ptr<pelmora::Task> SaveScriptTask(const ServiceProcess& service,
                                              const std::string& name, const std::string& script,
                                              const std::string& text) {
  std::ofstream(script) << "#!/bin/sh\n" << text;
  ::chmod(script.c_str(), 0755);
  pelmora::TaskScheduler scheduler;
  scheduler.SetTargetComputer("\\\\127.0.0.1:" + std::to_string(service.port()));
  std::shared_ptr<pelmora::Task> task = scheduler.CreateTask(name);
  task->SetApplicationName(script);
  task->SetTriggers({*pelmora::sched::ParseTrigger("daily 02:30", pelmora::Date::Now())});
  scheduler.Add(task);
  return task;
}

TEST(ServiceScheduler, TaskSavedThroughTheServiceRunsOnItsMachine) {
  ServiceProcess service(kSchedulerSection);
  ASSERT_TRUE(service.Start()) << service.ErrorOutput();
  std::string marker = service.Drive('C') + "/ran.txt";
  std::shared_ptr<pelmora::Task> task =
      SaveScriptTask(service, "remote", service.Drive('C') + "/job.sh",
                     "echo ran on the service > '" + marker + "'\n");
  EXPECT_EQ(ReadFile(service.Drive('C') + "/tasks/remote.job").size() > 0, true);
  task->Run();
  ASSERT_TRUE(WaitForLine(marker)) << service.ErrorOutput();
  EXPECT_EQ(ReadFile(marker), "ran on the service\n");
}

TEST(ServiceScheduler, AnEmptyTaskFolderListsNoTasksFromAnotherMachine) {
  ServiceProcess service(kSchedulerSection);
  ASSERT_TRUE(service.Start()) << service.ErrorOutput();
  pelmora::TaskScheduler scheduler;
  scheduler.SetTargetComputer("\\\\127.0.0.1:" + std::to_string(service.port()));
  EXPECT_TRUE(scheduler.ItemNames().empty());
}

// A task that detached a process (setsid, then a double fork that orphans it) is still running
// when the service stops: the stop ends the detached process too.
TEST(ServiceScheduler, StopKillsWhatARunningTaskDetached) {
  ServiceProcess service(kSchedulerSection);
  ASSERT_TRUE(service.Start()) << service.ErrorOutput();
  std::string pid_file = service.Drive('C') + "/detached.pid";
  std::shared_ptr<pelmora::Task> task =
      SaveScriptTask(service, "detaching", service.Drive('C') + "/detach.sh",
                     "(setsid sh -c 'echo $$ > " + pid_file +
                         "; exec sleep 60' &)\nexec sleep 60\n");
  task->Run();
  ASSERT_TRUE(WaitForLine(pid_file)) << service.ErrorOutput();
  pid_t detached = std::atoi(ReadFile(pid_file).c_str());
  ASSERT_GT(detached, 0);
  EXPECT_EQ(service.Stop(SIGTERM), 0) << service.ErrorOutput();
  EXPECT_TRUE(ProcessEnds(detached, 10000));
  if (!ProcessEnds(detached, 0)) ::kill(detached, SIGKILL);
}

}  // namespace
}  // namespace pelmorad::testing
