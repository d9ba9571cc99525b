// The log writers on a disk that fails: the line is lost, the call says so and never raises, and
// the next line after the disk recovers is written as usual.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/common/log.h"
#include "pelmora/testing/fault_file_api.h"

namespace pelmora {
namespace {

using internal::PinnedClock;
using internal::ReadWholeFile;
using internal::ScopedEnv;
using pelmora::testing::FaultFileApi;
using pelmora::testing::FileCall;

struct Case {
  FileCall call;
  int error;
};

class LogDiskFull : public ::testing::TestWithParam<Case> {
 protected:
  LogDiskFull() : clock_(CivilTime{2009, 3, 14, 8, 5, 9}) {
    std::filesystem::create_directory(root_);
    LogRoot() = root_;
    LogLevel() = 3;
  }
  ~LogDiskFull() override {
    LogRoot().clear();
    LogLevel() = 0;
  }

  internal::ScratchFolder scratch_;
  std::string root_ = scratch_.Path() + "/root";
  ScopedEnv home_env_{"PELMORA_HOME", scratch_.Path() + "/home/lib"};
  PinnedClock clock_;
};

TEST_P(LogDiskFull, LinesAreLostWithoutRaising) {
  {
    FaultFileApi faults;
    faults.FailFromNext(GetParam().call, GetParam().error);
    bool written = true;
    EXPECT_NO_THROW(written = WriteLog(1, "lost", "M", "P", 1));
    EXPECT_FALSE(written);
    EXPECT_NO_THROW(written = WriteLogFile(10054, "lost", "M", "P", 1));
    EXPECT_FALSE(written);
  }
  EXPECT_TRUE(WriteLog(1, "kept", "M", "P", 1));
  EXPECT_TRUE(WriteLogFile(10054, "kept", "M", "P", 1));
  std::optional<std::string> day = ReadWholeFile(root_ + "/200903/20090314.err");
  EXPECT_THAT(day, ::testing::Optional(::testing::EndsWith(",kept\r\n")));
  EXPECT_EQ(day->find("lost"), std::string::npos);
  std::optional<std::string> library =
      ReadWholeFile(scratch_.Path() + "/home/Log/200903/20090314.err");
  EXPECT_THAT(library, ::testing::Optional(::testing::EndsWith("`kept\r\n")));
  EXPECT_EQ(library->find("lost"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Faults, LogDiskFull,
                         ::testing::Values(Case{FileCall::kWrite, ENOSPC},
                                           Case{FileCall::kWrite, EIO},
                                           Case{FileCall::kOpen, EACCES}),
                         [](const auto& info) {
                           return pelmora::testing::FaultName(info.param.call, info.param.error);
                         });

}  // namespace
}  // namespace pelmora
