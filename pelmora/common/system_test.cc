#include "pelmora/common/system.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>

#include "pelmora/common/internal/log_test_support.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;
using internal::PinnedClock;
using internal::ReadWholeFile;
using internal::ScopedEnv;

TEST(GetTempFolder, EndsWithTheSeparatorWhateverTmpdirHolds) {
  struct Case {
    std::optional<std::string> tmpdir;
    std::string folder;
  };
  const Case kCases[] = {
      {std::nullopt, "/tmp/"},
      {"", "/tmp/"},
      {"/var/tmp", "/var/tmp/"},
      {"/var/tmp/", "/var/tmp/"},
      {"relative", "relative/"},
      {"/" + std::string(252, 'x') + "/", "/" + std::string(252, 'x') + "/"},
      {"/" + std::string(252, 'x'), "/" + std::string(252, 'x') + "/"},
  };
  internal::ScratchFolder scratch;  // any error line goes here, not beside the real library
  ScopedEnv home("PELMORA_HOME", scratch.Path() + "/lib");
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.tmpdir.value_or("(unset)"));
    ScopedEnv tmpdir("TMPDIR", c.tmpdir);
    EXPECT_EQ(GetTempFolder(), c.folder);
  }
  EXPECT_FALSE(fs::exists(scratch.Path() + "/Log"));
}

TEST(GetTempFolder, TooLongAFolderGivesEmptyAndOneErrorLineBesideTheLibrary) {
  internal::ScratchFolder scratch;
  ScopedEnv home("PELMORA_HOME", scratch.Path() + "/lib");
  PinnedClock clock({2009, 3, 14, 8, 5, 9});
  {
    ScopedEnv tmpdir("TMPDIR", "/" + std::string(254, 'x'));  // 256 with the separator
    EXPECT_EQ(GetTempFolder(), "");
  }
  EXPECT_EQ(ReadWholeFile(scratch.Path() + "/Log/200903/20090314.err"),
            "2009-03-14 08:05:09`E`" + LocalComputerName() +
                "`[modCommon:GetTempFolder]`0`206`The filename or extension is too long.\r\n");
  EXPECT_FALSE(fs::exists(scratch.Path() + "/Log/200903/20090314.log"));
}

TEST(LocalComputerName, IsTheHostName) {
  char expected[256] = {};
  ASSERT_EQ(gethostname(expected, sizeof(expected) - 1), 0);
  EXPECT_EQ(LocalComputerName(), expected);
  EXPECT_FALSE(LocalComputerName().empty());
}

TEST(LibraryFolder, PelmoraHomeOverridesWithoutTrailingSeparators) {
  struct Case {
    std::string home;
    std::string folder;
  };
  for (const Case& c : {Case{"/opt/pelmora/lib", "/opt/pelmora/lib"},
                        Case{"/opt/pelmora/lib//", "/opt/pelmora/lib"}, Case{"/", "/"}}) {
    ScopedEnv home("PELMORA_HOME", c.home);
    EXPECT_EQ(LibraryFolder(), c.folder);
  }
}

TEST(CurrentLocalTime, IsTheLocalTimeAtWholeSeconds) {
  std::time_t before = std::time(nullptr);
  Date now = CurrentLocalTime();
  std::time_t after = std::time(nullptr);
  double seconds = now.Serial() * 86400;
  EXPECT_NEAR(seconds, std::round(seconds), 1e-3);  // no milliseconds
  EXPECT_GE(now, Date::FromUnixTime(before));
  EXPECT_LE(now, Date::FromUnixTime(after));
}

TEST(CurrentLocalTime, FollowsAPinnedClockUntilItIsReleased) {
  {
    PinnedClock clock({2026, 1, 31, 23, 59, 59});
    EXPECT_EQ(CurrentLocalTime().Format("yyyy-mm-dd hh:nn:ss"), "2026-01-31 23:59:59");
  }
  EXPECT_NE(CurrentLocalTime().ToCivil().year, 2026 - 100);  // the system clock again
  EXPECT_GE(CurrentLocalTime(), Date::FromUnixTime(std::time(nullptr) - 1));
}

}  // namespace
}  // namespace pelmora
