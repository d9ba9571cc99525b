// The service's task runner: a task saved and started from another machine (through the
// administration client's file requests on the "Tasks" path key) runs on the service's machine.
#include <sys/stat.h>

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


TEST(ServiceScheduler, TaskSavedThroughTheServiceRunsOnItsMachine) {
  ServiceProcess service(kSchedulerSection);
  ASSERT_TRUE(service.Start()) << service.ErrorOutput();
  std::string script = service.Drive('C') + "/job.sh";
  std::string marker = service.Drive('C') + "/ran.txt";
  std::ofstream(script) << "#!/bin/sh\necho ran on the service > '" << marker << "'\n";
  ::chmod(script.c_str(), 0755);

  pelmora::TaskScheduler scheduler;
  scheduler.SetTargetComputer("\\\\127.0.0.1:" + std::to_string(service.port()));
  std::shared_ptr<pelmora::Task> task = scheduler.CreateTask("remote");
  task->SetApplicationName(script);
  task->SetTriggers({*pelmora::sched::ParseTrigger("daily 02:30", pelmora::Date::Now())});
  scheduler.Add(task);
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

}  // namespace
}  // namespace pelmorad::testing
