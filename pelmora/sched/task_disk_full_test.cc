// Saving a task onto a disk that fails: Save raises the failure's result and the old .job stays
// whole, with no temporary left beside it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/sched/internal/file_io.h"
#include "pelmora/sched/task.h"
#include "pelmora/sched/task_scheduler.h"
#include "pelmora/testing/fault_file_api.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

using pelmora::internal::ScratchFolder;
using pelmora::testing::FaultFileApi;
using pelmora::testing::FileCall;
using pelmora::testing::NamesIn;
using pelmora::testing::RaisedError;

struct Case {
  FileCall call;
  int error;
  uint32_t result;
  const char* text;
};

class TaskDiskFull : public ::testing::TestWithParam<Case> {
 protected:
  std::string Bytes() const {
    std::string bytes;
    sched::internal::ReadWholeFile(folder_.Path() + "/kept.job", 1 << 20, bytes);
    return bytes;
  }

  ScratchFolder folder_;
  TaskScheduler scheduler_{sched::OpenLocalTaskStore(folder_.Path())};
};

TEST_P(TaskDiskFull, SaveRaisesAndKeepsTheOldJobFile) {
  auto task = scheduler_.CreateTask("kept");
  task->SetApplicationName("/bin/true");
  task->SetComment("first");
  scheduler_.Add(task);
  const std::string old_bytes = Bytes();
  ASSERT_FALSE(old_bytes.empty());
  task->SetComment(std::string(5000, 'c'));
  Error raised(0, "");
  {
    FaultFileApi faults;
    faults.FailFromNext(GetParam().call, GetParam().error);
    raised = RaisedError([&] { task->Save(); });
  }
  EXPECT_EQ(static_cast<uint32_t>(raised.Number()), GetParam().result);
  EXPECT_EQ(raised.Description(), GetParam().text);
  EXPECT_EQ(Bytes(), old_bytes);
  EXPECT_EQ(NamesIn(folder_.Path()), std::vector<std::string>{"kept.job"});
  EXPECT_EQ(scheduler_.Item("kept")->Comment(), "first");
}

INSTANTIATE_TEST_SUITE_P(
    Faults, TaskDiskFull,
    ::testing::Values(
        Case{FileCall::kWrite, ENOSPC, 0x80070070, "There is not enough space on the disk."},
        Case{FileCall::kFsync, EIO, 0x80070001, "Incorrect function."},
        Case{FileCall::kRename, EDQUOT, 0x80070070, "There is not enough space on the disk."},
        Case{FileCall::kOpen, EACCES, 0x80070005, "Access is denied."}),
    [](const auto& info) {
      return pelmora::testing::FaultName(info.param.call, info.param.error);
    });

}  // namespace
}  // namespace pelmora
