// The log writers: which levels and entry types are written, the fields and cleaning of each
// line, the folders and day files the lines go to, and the settings each thread keeps.
#include "pelmora/common/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pelmora/common/codepage.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/common/system.h"
#include "pelmora/testing/log_test_fixture.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;
using internal::PinnedClock;
using internal::ReadWholeFile;
using internal::ScopedEnv;
using internal::kMorning;
using internal::LogTest;

TEST_F(LogTest, WriteLogWritesOnlyLevelsUpToTheThreadsLogLevel) {
  struct Case {
    int16_t level;
    int16_t threshold;
    bool written;
  };
  for (Case c : {Case{3, 1, false}, Case{1, 1, true}, Case{3, 3, true}, Case{1, 3, true},
                 Case{4, 3, false}, Case{0, 0, true}, Case{-1, 0, true}, Case{1, 0, false}}) {
    SCOPED_TRACE(::testing::Message() << "level " << c.level << " threshold " << c.threshold);
    fs::remove_all(root_ + "/200903");
    LogLevel() = c.threshold;
    EXPECT_EQ(WriteLog(c.level, "m", "RSFSO", "FolderExists", 4), c.written);
    // A filtered line does nothing at all: not even the month folder appears.
    EXPECT_EQ(fs::exists(root_ + "/200903"), c.written);
  }
}

TEST_F(LogTest, WriteLogWithoutAnExistingRootWritesAndCreatesNothing) {
  std::ofstream(scratch_.Path() + "/plain-file") << "x";
  for (std::string root : {std::string(), scratch_.Path() + "/missing",
                           scratch_.Path() + "/plain-file", scratch_.Path() + "/missing/deeper"}) {
    SCOPED_TRACE(root);
    LogRoot() = root;
    EXPECT_FALSE(WriteLog(1, "m", "RSFSO", "FolderExists", 1));
    EXPECT_FALSE(fs::exists(scratch_.Path() + "/missing"));
    EXPECT_FALSE(fs::exists("200903"));  // an empty root never falls back to the working folder
  }
}

TEST_F(LogTest, WriteLogCreatesTheMonthFolderUnderAnExistingRoot) {
  ASSERT_FALSE(fs::exists(root_ + "/200903"));
  EXPECT_TRUE(WriteLog(1, "first", "RSFSO", "Connect", 4));
  EXPECT_TRUE(fs::is_directory(root_ + "/200903"));
  EXPECT_TRUE(WriteLog(1, "second", "RSFSO", "Connect", 4));
  EXPECT_THAT(ReadWholeFile(DayFile(".log")),
              ::testing::Optional(::testing::MatchesRegex(".*first\r\n.*second\r\n")));
}

// Lines of one second after the folders under the root changed: the writer remembers the month
// folder, so each case checks it notices.
TEST_F(LogTest, FoldersChangedBetweenLinesOfOneSecond) {
  std::string month = root_ + "/200903";
  ASSERT_TRUE(WriteLog(1, "before", "M", "P", 4));

  fs::remove_all(month);  // the month folder is made again and the line goes into a new day file
  EXPECT_TRUE(WriteLog(1, "after month removed", "M", "P", 4));
  EXPECT_THAT(ReadWholeFile(DayFile(".log")),
              ::testing::Optional(::testing::EndsWith(",[M:P],after month removed\r\n")));
  EXPECT_THAT(ReadWholeFile(DayFile(".log")), ::testing::Optional(::testing::Not(
                                                  ::testing::HasSubstr("before"))));

  fs::remove_all(month);  // a plain file where the month folder was
  std::ofstream(month) << "x";
  EXPECT_FALSE(WriteLog(1, "month is a file", "M", "P", 4));
  fs::remove(month);

  fs::remove_all(root_);  // the root is never made
  EXPECT_FALSE(WriteLog(1, "root removed", "M", "P", 4));
  EXPECT_FALSE(fs::exists(root_));

  fs::create_directory(root_);
  EXPECT_TRUE(WriteLog(1, "root back", "M", "P", 4));
  EXPECT_THAT(ReadWholeFile(DayFile(".log")),
              ::testing::Optional(::testing::EndsWith(",root back\r\n")));
}

// ASCII lines skip the code page conversion only where the code page keeps ASCII as it is.
TEST_F(LogTest, AsciiLinesFollowACodePageThatChangesThem) {
  std::string old_code_page = AnsiCodePage();
  ASSERT_TRUE(SetAnsiCodePage("UTF-16LE"));
  bool written = WriteLog(1, "wide", "M", "P", 4);
  SetAnsiCodePage(old_code_page);
  ASSERT_TRUE(written);
  std::string expected = Utf8ToUtf16Le("2009-03-14 08:05:09,I," + host_ + ",[M:P],wide\r\n");
  EXPECT_EQ(ReadWholeFile(DayFile(".log")), expected);
}

TEST_F(LogTest, EntryTypesChooseTheLetterAndTheDayFile) {
  struct Case {
    int32_t entry_type;
    char letter;
    std::string_view extension;
  };
  for (Case c :
       {Case{4, 'I', ".log"}, Case{1, 'E', ".err"}, Case{2, 'W', ".err"}, Case{3, 'U', ".err"},
        Case{0, 'U', ".err"}, Case{99, 'U', ".err"}, Case{-4, 'U', ".err"}}) {
    SCOPED_TRACE(c.entry_type);
    fs::remove_all(root_ + "/200903");
    fs::remove_all(scratch_.Path() + "/home");
    ASSERT_TRUE(WriteLog(1, "m", "Mod", "Proc", c.entry_type));
    ASSERT_TRUE(WriteLogFile(-1, "m", "Mod", "Proc", c.entry_type));
    std::string other = c.extension == ".log" ? ".err" : ".log";
    EXPECT_EQ(
        ReadWholeFile(DayFile(c.extension)),
        "2009-03-14 08:05:09," + std::string(1, c.letter) + "," + host_ + ",[Mod:Proc],m\r\n");
    EXPECT_EQ(
        ReadWholeFile(LibraryDayFile("20090314" + std::string(c.extension))),
        "2009-03-14 08:05:09`" + std::string(1, c.letter) + "`" + host_ + "`[Mod:Proc]`0`-1`m\r\n");
    EXPECT_FALSE(fs::exists(DayFile(other)));
    EXPECT_FALSE(fs::exists(LibraryDayFile("20090314" + other)));
  }
}

TEST_F(LogTest, WriteLogLineHasCommaSeparatedFields) {
  ASSERT_TRUE(WriteLog(3, "** FolderExists C:\\Data, yes", "RSFSO", "FolderExists", 4));
  EXPECT_EQ(
      ReadWholeFile(DayFile(".log")),
      "2009-03-14 08:05:09,I," + host_ + ",[RSFSO:FolderExists],** FolderExists C:\\Data, yes\r\n");
}

TEST_F(LogTest, WriteLogFileLineHasBackQuoteSeparatedFieldsWithBothNumbers) {
  ASSERT_TRUE(WriteLogFile(10054, "Connection reset", "SocketClient", "RecvMessage", 1));
  ASSERT_TRUE(WriteLogFile(-2147483647 - 1, "x", "SocketClt", "SendPacket", 1, -7));
  EXPECT_EQ(ReadWholeFile(LibraryDayFile("20090314.err")),
            "2009-03-14 08:05:09`E`" + host_ +
                "`[SocketClient:RecvMessage]`0`10054`Connection reset\r\n"
                "2009-03-14 08:05:09`E`" +
                host_ + "`[SocketClt:SendPacket]`-7`-2147483648`x\r\n");
}

TEST_F(LogTest, MessagesAreCleanedTheSameWayByBothWriters) {
  struct Case {
    std::string_view message;
    std::string_view written;
  };
  const Case kCases[] = {
      {"a`b\r\nc", "a'b c"},
      {"a\nb", "a\nb"},
      {"a\rb", "a\rb"},
      {"\n\r", "\n\r"},
      {"\r\r\n\n", "\r \n"},
      {"\r\n\r\n", "  "},
      {"``", "''"},
      {"", ""},
      {"x\r", "x\r"},
      {std::string_view("a\0b", 3), std::string_view("a\0b", 3)},
      {"\u00e9t\u00e9 \u20ac", "\xE9t\xE9 \x80"},  // lines are written in the ANSI code page
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(::testing::PrintToString(std::string(c.message)));
    fs::remove_all(root_ + "/200903");
    fs::remove_all(scratch_.Path() + "/home");
    ASSERT_TRUE(WriteLog(1, c.message, "M", "P", 4));
    ASSERT_TRUE(WriteLogFile(0, c.message, "M", "P", 4));
    std::string prefix = "2009-03-14 08:05:09,I," + host_ + ",[M:P],";
    EXPECT_EQ(ReadWholeFile(DayFile(".log")), prefix + std::string(c.written) + "\r\n");
    std::string library_prefix = "2009-03-14 08:05:09`I`" + host_ + "`[M:P]`0`0`";
    EXPECT_EQ(ReadWholeFile(LibraryDayFile("20090314.log")),
              library_prefix + std::string(c.written) + "\r\n");
  }
}

TEST_F(LogTest, WriteLogFilePutsThePrefixInFrontOfTheDay) {
  EXPECT_TRUE(WriteLogFile(-1, "m", "M", "P", 4, 0, "X"));
  EXPECT_TRUE(fs::is_regular_file(LibraryDayFile("X20090314.log")));
  // A prefix with a folder in it gets that folder created, as the whole path is made to exist.
  EXPECT_TRUE(WriteLogFile(-1, "m", "M", "P", 1, 0, "sub/Y"));
  EXPECT_TRUE(fs::is_regular_file(LibraryDayFile("sub/Y20090314.err")));
}

TEST_F(LogTest, WriteLogFileCreatesTheWholeFolderChainBesideTheLibrary) {
  ScopedEnv home("PELMORA_HOME", scratch_.Path() + "/a/b/lib/");
  ASSERT_FALSE(fs::exists(scratch_.Path() + "/a"));
  EXPECT_TRUE(WriteLogFile(-1, "m", "M", "P", 4));
  EXPECT_TRUE(fs::is_regular_file(scratch_.Path() + "/a/b/Log/200903/20090314.log"));
  // The ".." is walked, not resolved away, so the library's own folder exists afterwards too.
  EXPECT_TRUE(fs::is_directory(scratch_.Path() + "/a/b/lib"));
}

TEST_F(LogTest, WriteLogFileFailsWhenAFolderCannotBeCreated) {
  std::ofstream(scratch_.Path() + "/blocker") << "x";
  ScopedEnv home("PELMORA_HOME", scratch_.Path() + "/blocker/lib");
  EXPECT_FALSE(WriteLogFile(-1, "m", "M", "P", 4));
  ScopedEnv no_home("PELMORA_HOME", scratch_.Path() + "/lib");
  std::ofstream(scratch_.Path() + "/Log") << "x";
  EXPECT_FALSE(WriteLogFile(-1, "m", "M", "P", 4));
}

TEST_F(LogTest, AUserWhoMayNotWriteBesideTheLibraryWritesToTheirOwnFolder) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  constexpr uid_t kNobody = 65534;
  // The library's folder is root's; the user's state folder is their own.
  ScopedEnv home("PELMORA_HOME", scratch_.Path() + "/system/lib");
  fs::create_directories(scratch_.Path() + "/system/lib");
  fs::permissions(scratch_.Path(), fs::perms(0755));
  fs::create_directories(scratch_.Path() + "/state");
  ASSERT_EQ(chown((scratch_.Path() + "/state").c_str(), kNobody, kNobody), 0);
  ScopedEnv state("XDG_STATE_HOME", scratch_.Path() + "/state");
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    bool written = setresgid(kNobody, kNobody, kNobody) == 0 &&
                   setresuid(kNobody, kNobody, kNobody) == 0 &&
                   WriteLogFile(10054, "reset", "SocketClient", "RecvMessage", 1);
    _exit(written ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(fs::exists(scratch_.Path() + "/system/Log"));
  std::string own = scratch_.Path() + "/state/pelmora/log/200903/20090314.err";
  EXPECT_EQ(ReadWholeFile(own), "2009-03-14 08:05:09`E`" + host_ +
                                    "`[SocketClient:RecvMessage]`0`10054`reset\r\n");
  // Root still writes beside the library.
  EXPECT_TRUE(WriteLogFile(-1, "m", "M", "P", 4));
  EXPECT_TRUE(fs::exists(scratch_.Path() + "/system/Log/200903/20090314.log"));
}

TEST(UserLogRoot, IsTheStateFolderElseTheHomeFolders) {
  struct Case {
    std::optional<std::string> state, home;
    std::string root;
  } cases[] = {
      {"/s", "/h", "/s/pelmora/log"},
      {"", "/h", "/h/.local/state/pelmora/log"},
      {std::nullopt, "/h", "/h/.local/state/pelmora/log"},
      {std::nullopt, std::nullopt, ""},
  };
  for (const Case& c : cases) {
    ScopedEnv state("XDG_STATE_HOME", c.state);
    ScopedEnv home("HOME", c.home);
    EXPECT_EQ(UserLogRoot(), c.root);
  }
}

TEST_F(LogTest, AFileThatCannotBeOpenedFailsOnlyThatCall) {
  // A folder standing where the day file belongs makes the open fail even for root.
  fs::create_directories(DayFile(".err"));
  fs::create_directories(LibraryDayFile("20090314.err"));
  EXPECT_FALSE(WriteLog(1, "lost", "M", "P", 1));
  EXPECT_FALSE(WriteLogFile(1, "lost", "M", "P", 1));
  fs::remove(DayFile(".err"));
  fs::remove(LibraryDayFile("20090314.err"));
  EXPECT_TRUE(WriteLog(1, "kept", "M", "P", 1));
  EXPECT_TRUE(WriteLogFile(1, "kept", "M", "P", 1));
  EXPECT_THAT(ReadWholeFile(DayFile(".err")),
              ::testing::Optional(::testing::EndsWith(",kept\r\n")));
}

TEST_F(LogTest, WriteLogFailsWhenTheMonthFolderCannotBeCreated) {
  std::ofstream(root_ + "/200903") << "x";
  EXPECT_FALSE(WriteLog(1, "m", "M", "P", 4));
}

TEST_F(LogTest, TheLastSecondOfAMonthKeepsStampFolderAndFileTogether) {
  clock_.Set({2026, 1, 31, 23, 59, 59});
  ASSERT_TRUE(WriteLog(1, "last", "M", "P", 4));
  ASSERT_TRUE(WriteLogFile(-1, "last", "M", "P", 4));
  clock_.Set({2026, 2, 1, 0, 0, 0});
  ASSERT_TRUE(WriteLog(1, "first", "M", "P", 4));
  ASSERT_TRUE(WriteLogFile(-1, "first", "M", "P", 4));
  std::string home_log = scratch_.Path() + "/home/Log/";
  EXPECT_THAT(ReadWholeFile(root_ + "/202601/20260131.log"),
              ::testing::Optional(::testing::StartsWith("2026-01-31 23:59:59,I,")));
  EXPECT_THAT(ReadWholeFile(root_ + "/202602/20260201.log"),
              ::testing::Optional(::testing::StartsWith("2026-02-01 00:00:00,I,")));
  EXPECT_THAT(ReadWholeFile(home_log + "202601/20260131.log"),
              ::testing::Optional(::testing::StartsWith("2026-01-31 23:59:59`I`")));
  EXPECT_THAT(ReadWholeFile(home_log + "202602/20260201.log"),
              ::testing::Optional(::testing::StartsWith("2026-02-01 00:00:00`I`")));
}

TEST_F(LogTest, LogRootAndLogLevelBelongToEachThread) {
  std::string seen_root = "unset";
  int16_t seen_level = -1;
  bool written = true;
  std::thread other([&] {
    seen_root = LogRoot();
    seen_level = LogLevel();
    written = WriteLog(0, "m", "M", "P", 4);
    LogRoot() = "/elsewhere";
    LogLevel() = 9;
  });
  other.join();
  EXPECT_EQ(seen_root, "");
  EXPECT_EQ(seen_level, 0);
  EXPECT_FALSE(written);
  EXPECT_EQ(LogRoot(), root_);
  EXPECT_EQ(LogLevel(), 3);
}

}  // namespace
}  // namespace pelmora
