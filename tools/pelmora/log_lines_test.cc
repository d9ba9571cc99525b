// Reading the day's log files back: which files count, merging by time stamp, line ends.
#include "tools/pelmora/log_lines.h"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace pelmora_tool {
namespace {

namespace fs = std::filesystem;

class LogLinesTest : public ::testing::Test {
 protected:
  // One folder per test process: ctest runs the tests of this fixture in parallel processes.
  LogLinesTest()
      : root_(fs::path(::testing::TempDir()) / ("pelmora-log-lines-" + std::to_string(::getpid()))) {
    fs::remove_all(root_);
    fs::create_directories(root_ / "200903");
  }
  ~LogLinesTest() override { fs::remove_all(root_); }
  void Write(const std::string& name, const std::string& text) {
    std::ofstream(root_ / "200903" / name, std::ios::binary) << text;
  }
  fs::path root_;
};

TEST_F(LogLinesTest, MergesTheDayFilesInTimeOrder) {
  Write("20090314.log", "2009-03-14 08:05:09,I,PC,[RFSO:Connect],** Connected \r\n"
                        "2009-03-14 08:05:11,I,PC,[RSFSO:Disconnect],(3)Client Disconnected3\r\n");
  Write("20090314.err", "2009-03-14 08:05:10,E,PC,[RCFSO:RecvMessage],(3)Recv fail\r\n");
  Write("SC20090314.err", "2009-03-14 08:05:09`E`PC`[SocketClient:Send]`0`10054`reset\r\n");
  Write("20090313.err", "2009-03-13 23:59:59,E,PC,[X:Y],yesterday\r\n");
  Write("notes.txt", "2009-03-14 00:00:00 not a log\n");
  EXPECT_THAT(DayLogLines(root_.string(), "20090314", false),
              ::testing::ElementsAre(
                  "2009-03-14 08:05:09,I,PC,[RFSO:Connect],** Connected ",
                  "2009-03-14 08:05:09`E`PC`[SocketClient:Send]`0`10054`reset",
                  "2009-03-14 08:05:10,E,PC,[RCFSO:RecvMessage],(3)Recv fail",
                  "2009-03-14 08:05:11,I,PC,[RSFSO:Disconnect],(3)Client Disconnected3"));
  EXPECT_THAT(DayLogLines(root_.string(), "20090314", true),
              ::testing::ElementsAre("2009-03-14 08:05:09`E`PC`[SocketClient:Send]`0`10054`reset",
                                     "2009-03-14 08:05:10,E,PC,[RCFSO:RecvMessage],(3)Recv fail"));
}

TEST(LogRoot, TheEnvironmentNamesTheToolsLogFolder) {
  setenv("PELMORA_LOG_ROOT", "/var/log/pelmora-test", 1);
  EXPECT_EQ(ToolLogRoot(), "/var/log/pelmora-test");
  unsetenv("PELMORA_LOG_ROOT");
  EXPECT_FALSE(ToolLogRoot().empty());
}

TEST_F(LogLinesTest, AMissingDayGivesNoLines) {
  EXPECT_TRUE(DayLogLines(root_.string(), "20090315", false).empty());
  EXPECT_TRUE(DayLogLines(root_.string(), "20100101", false).empty());
}

}  // namespace
}  // namespace pelmora_tool
