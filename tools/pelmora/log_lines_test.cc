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

TEST_F(LogLinesTest, FollowingGivesCompleteNewLinesAndMovesOnToTheNextDay) {
  auto append = [this](const std::string& folder, const std::string& name,
                       const std::string& text) {
    fs::create_directories(root_ / folder);
    std::ofstream(root_ / folder / name, std::ios::binary | std::ios::app) << text;
  };
  append("200903", "20090331.log", "2009-03-31 23:59:00,I,PC,[A:B],before\r\n");
  std::string today = "20090331";
  LogFollower follower(root_.string(), false, [&today] { return today; });
  EXPECT_THAT(follower.Poll(), ::testing::ElementsAre("2009-03-31 23:59:00,I,PC,[A:B],before"));
  EXPECT_TRUE(follower.Poll().empty()) << "lines already given are not repeated";

  append("200903", "20090331.log", "2009-03-31 23:59:58,I,PC,[A:B],one\r\n2009-03-31 23:59:5");
  append("200903", "20090331.err", "2009-03-31 23:59:57,E,PC,[A:B],error\r\n");
  EXPECT_THAT(follower.Poll(), ::testing::ElementsAre("2009-03-31 23:59:57,E,PC,[A:B],error",
                                                      "2009-03-31 23:59:58,I,PC,[A:B],one"));
  EXPECT_TRUE(follower.Poll().empty()) << "half a line waits for its end";

  // Midnight: the old day's last line, then the new day's file (in a new month) from its start.
  append("200903", "20090331.log", "9,I,PC,[A:B],two\r\n");
  append("200904", "20090401.log", "2009-04-01 00:00:01,I,PC,[A:B],three\r\n");
  today = "20090401";
  EXPECT_THAT(follower.Poll(), ::testing::ElementsAre("2009-03-31 23:59:59,I,PC,[A:B],two",
                                                      "2009-04-01 00:00:01,I,PC,[A:B],three"));
  append("200903", "20090331.log", "2009-03-31 23:59:59,I,PC,[A:B],late\r\n");
  EXPECT_TRUE(follower.Poll().empty()) << "yesterday's files are left behind";

  // A file replaced by a shorter one is read from its start.
  fs::remove(root_ / "200904" / "20090401.log");
  append("200904", "20090401.log", "2009-04-01 00:00:02,I,PC,[A:B],new\r\n");
  EXPECT_THAT(follower.Poll(), ::testing::ElementsAre("2009-04-01 00:00:02,I,PC,[A:B],new"));
}

}  // namespace
}  // namespace pelmora_tool
