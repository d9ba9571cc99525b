#include "pelmora/sched/task_scheduler.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "pelmora/common/error.h"
#include "pelmora/common/system.h"
#include "pelmora/sched/internal/file_io.h"
#include "pelmora/sched/internal/job_file_test_data.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/sched/sched_errors.h"
#include "pelmora/sched/trigger.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

using pelmora::testing::RaisedError;
using sched::testing::FromHex;
using pelmora::internal::ScratchFolder;

constexpr int32_t kFileNotFoundNumber = -2147024894;
constexpr int32_t kFileExistsNumber = -2147024816;
constexpr int32_t kInvalidArgNumber = -2147024809;
constexpr int32_t kInvalidTaskNumber = -2147216626;

class TaskSchedulerTest : public ::testing::Test {
 protected:
  std::string ReadFile(const std::string& name) {
    std::string bytes;
    EXPECT_EQ(sched::internal::ReadWholeFile(folder_.Path() + "/" + name, 1 << 20, bytes), 0);
    return bytes;
  }
  void WriteFile(const std::string& name, const std::string& bytes) {
    std::ofstream(folder_.Path() + "/" + name, std::ios::binary) << bytes;
  }

  ScratchFolder folder_;
  TaskScheduler scheduler_{sched::OpenLocalTaskStore(folder_.Path())};
};

TEST_F(TaskSchedulerTest, ItemNamesOfAnEmptyOrMissingFolderIsEmpty) {
  scheduler_.Refresh();
  EXPECT_TRUE(scheduler_.ItemNames().empty());
  TaskScheduler missing(sched::OpenLocalTaskStore(folder_.Path() + "/none"));
  missing.Refresh();
  EXPECT_TRUE(missing.ItemNames().empty());
}

TEST_F(TaskSchedulerTest, CreateTaskWithAnEmptyNameRaises5FromAdd) {
  Error e = RaisedError([&] { scheduler_.CreateTask(""); });
  EXPECT_EQ(e.Number(), 5);
  EXPECT_EQ(e.Description(), "Invalid procedure call");
  EXPECT_EQ(e.Source(), "Add");
  auto unnamed = std::make_shared<Task>(scheduler_.Store(), "", ".job", sched::JobFile{}, false);
  EXPECT_EQ(RaisedError([&] { scheduler_.Add(unnamed); }).Source(), "Add");
}

TEST_F(TaskSchedulerTest, AddStoresTheTaskAndRefreshesTheNames) {
  auto task = scheduler_.CreateTask("backup");
  EXPECT_TRUE(scheduler_.ItemNames().empty());
  scheduler_.Add(task);
  EXPECT_EQ(scheduler_.ItemNames(), std::vector<std::string>{"backup.job"});
  std::string bytes = ReadFile("backup.job");
  EXPECT_EQ(bytes.size(), 220u);  // no strings, the placeholder trigger, a blank signature
  EXPECT_EQ(sched::ParseJobFile(bytes)->status, sched::kSchedTaskNotScheduled);
  EXPECT_EQ(task->FileName(), folder_.Path() + "/backup.job");
}

TEST_F(TaskSchedulerTest, AddRefusesTakenNamesAndNamesWithDots) {
  scheduler_.Add(scheduler_.CreateTask("backup"));
  Error taken = RaisedError([&] { scheduler_.Add(scheduler_.CreateTask("BACKUP")); });
  EXPECT_EQ(taken.Number(), kFileExistsNumber);
  EXPECT_EQ(taken.Description(), "The file exists.");
  EXPECT_EQ(taken.Source(), "Pelmora.TaskScheduler");
  scheduler_.Add(scheduler_.CreateTask("\u00e9t\u00e9"));
  Error accented = RaisedError([&] { scheduler_.Add(scheduler_.CreateTask("\u00c9T\u00c9")); });
  EXPECT_EQ(accented.Number(), kFileExistsNumber);  // names fold beyond A-Z too
  EXPECT_EQ(scheduler_.Item("\u00c9t\u00c9")->Name(), "\u00c9t\u00c9.job");  // found as été.job
  Error dotted = RaisedError([&] { scheduler_.Add(scheduler_.CreateTask("backup.job")); });
  EXPECT_EQ(dotted.Number(), kInvalidArgNumber);
  EXPECT_EQ(dotted.Description(), "The parameter is incorrect.");
}

TEST_F(TaskSchedulerTest, ItemCompletesTheNameWithJob) {
  WriteFile("backup.job", FromHex(sched::testing::kWineDailyJobHex));
  for (const char* name : {"backup", "backup.JOB", "backup.job"}) {
    std::shared_ptr<Task> task = scheduler_.Item(name);
    EXPECT_EQ(task->ApplicationName(), "C:\\windows\\notepad.exe") << name;
  }
  EXPECT_EQ(scheduler_.Item("backup")->Name(), "backup.job");
  EXPECT_EQ(scheduler_.Item("backup.JOB")->Name(), "backup.JOB");
  EXPECT_EQ(CompleteTaskName("a.Job"), "a.Job");
  EXPECT_EQ(CompleteTaskName("ajob"), "ajob.job");
}

TEST_F(TaskSchedulerTest, ItemRaisesForMissingCorruptAndEscapingNames) {
  Error missing = RaisedError([&] { scheduler_.Item("nothing"); });
  EXPECT_EQ(missing.Number(), kFileNotFoundNumber);
  EXPECT_EQ(missing.Description(), "The system cannot find the file specified.");
  WriteFile("broken.job", "not a task");
  Error broken = RaisedError([&] { scheduler_.Item("broken"); });
  EXPECT_EQ(broken.Number(), kInvalidTaskNumber);
  EXPECT_EQ(broken.Description(),
            "The object is either an invalid task object or is not a task object.");
  EXPECT_EQ(RaisedError([&] { scheduler_.Item("../etc/passwd"); }).Number(), kInvalidArgNumber);
  EXPECT_EQ(RaisedError([&] { scheduler_.Remove(".hidden"); }).Number(), kInvalidArgNumber);
}

TEST_F(TaskSchedulerTest, RefreshListsOnlyJobFilesInNameOrder) {
  WriteFile("b.job", "x");
  WriteFile("a.JOB", "x");
  WriteFile("c.txt", "x");
  WriteFile("b.job.account", "x");
  scheduler_.Refresh();
  EXPECT_EQ(scheduler_.ItemNames(), (std::vector<std::string>{"a.JOB", "b.job"}));
}

TEST_F(TaskSchedulerTest, RemoveDeletesTheFileAndDropsOnlyAHeldName) {
  scheduler_.Add(scheduler_.CreateTask("one"));
  scheduler_.Add(scheduler_.CreateTask("two"));
  WriteFile("late.job", FromHex(sched::testing::kEmptyJobHex));  // after the last Refresh
  scheduler_.Remove("late");
  EXPECT_EQ(scheduler_.ItemNames(), (std::vector<std::string>{"one.job", "two.job"}));
  scheduler_.Remove("ONE");
  EXPECT_EQ(scheduler_.ItemNames(), std::vector<std::string>{"two.job"});
  EXPECT_FALSE(std::filesystem::exists(folder_.Path() + "/one.job"));
  EXPECT_EQ(RaisedError([&] { scheduler_.Remove("one"); }).Number(), kFileNotFoundNumber);
}

TEST_F(TaskSchedulerTest, TargetComputerIsTheLocalNameUntilAnotherIsSet) {
  EXPECT_EQ(scheduler_.TargetComputer(), "\\\\" + LocalComputerName());
  ScratchFolder other;
  std::string asked;
  scheduler_.SetRemoteStoreOpener([&](const std::string& computer) {
    asked = computer;
    return sched::OpenLocalTaskStore(other.Path());
  });
  std::ofstream(other.Path() + "/remote.job") << "x";
  scheduler_.SetTargetComputer("\\\\files01");
  EXPECT_EQ(asked, "\\\\files01");
  EXPECT_EQ(scheduler_.TargetComputer(), "\\\\files01");
  EXPECT_EQ(scheduler_.ItemNames(), std::vector<std::string>{"remote.job"});
}

TEST_F(TaskSchedulerTest, UnreachableComputerRaisesTheClientErrorAndKeepsTheTarget) {
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  close(probe);  // nothing listens on the port now
  TaskScheduler scheduler(sched::OpenLocalTaskStore(folder_.Path()));
  Error e = RaisedError([&] {
    scheduler.SetTargetComputer("\\\\127.0.0.1:" + std::to_string(ntohs(address.sin_port)));
  });
  EXPECT_EQ(e.Number(), 10061);
  EXPECT_EQ(e.Source(), "Pelmora.TaskScheduler");
  EXPECT_EQ(scheduler.TargetComputer(), "\\\\" + LocalComputerName());
}

}  // namespace
}  // namespace pelmora
