// RCFileInfo, FILETIME conversion and the listing collection.
#include "pelmora/admin/rc_file_info.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "pelmora/common/error.h"
#include "pelmora/testing/scoped_env.h"

namespace pelmora::admin {
namespace {

constexpr uint64_t kTicksPerSecond = 10000000;

uint64_t FileTimeOfUnix(int64_t seconds) {
  return static_cast<uint64_t>(seconds + kFileTimeUnixEpochSeconds) * kTicksPerSecond;
}

std::string Text(Date date) { return date.Format("yyyy-mm-dd hh:nn:ss"); }

TEST(FileTimeToDate, FollowsDaylightSavingChangesOfTheLocalZone) {
  pelmora::testing::ScopedTimeZone zone("Europe/Berlin");
  struct Case {
    int64_t unix_seconds;
    const char* local;
  } cases[] = {
      {1616893199, "2021-03-28 01:59:59"},  // the last second before summer time
      {1616893200, "2021-03-28 03:00:00"},  // 01:00 UTC: the clocks jump from 2 to 3
      {1635641999, "2021-10-31 02:59:59"},  // the last second of summer time
      {1635642000, "2021-10-31 02:00:00"},  // the hour from 2 to 3 comes again
      {1234598709, "2009-02-14 09:05:09"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Text(FileTimeToDate(FileTimeOfUnix(c.unix_seconds))), c.local) << c.unix_seconds;
  }
}

TEST(FileTimeToDate, ZeroIsTheLocalStartOf1601) {
  {
    pelmora::testing::ScopedTimeZone zone("UTC0");
    EXPECT_EQ(Text(FileTimeToDate(0)), "1601-01-01 00:00:00");
  }
  pelmora::testing::ScopedTimeZone zone("XST-3");  // three hours east of UTC, no daylight saving
  EXPECT_EQ(Text(FileTimeToDate(0)), "1601-01-01 03:00:00");
}

TEST(FileTimeToDate, DropsTheSubSecondPart) {
  pelmora::testing::ScopedTimeZone zone("UTC0");
  const uint64_t whole = FileTimeOfUnix(1234598709);
  for (uint64_t extra : {uint64_t{0}, uint64_t{1}, uint64_t{5000000}, kTicksPerSecond - 1}) {
    EXPECT_EQ(Text(FileTimeToDate(whole + extra)), "2009-02-14 08:05:09") << extra;
  }
  EXPECT_EQ(Text(FileTimeToDate(whole + kTicksPerSecond)), "2009-02-14 08:05:10");
}

TEST(FileTimeToDate, BeyondTheLastDateGivesTheEmptyDate) {
  pelmora::testing::ScopedTimeZone zone("UTC0");
  EXPECT_TRUE(FileTimeToDate(~uint64_t{0}).IsEmpty());
  EXPECT_EQ(Text(FileTimeToDate(FileTimeOfUnix(253402300799))), "9999-12-31 23:59:59");
}

TEST(RCFileInfo, FromRecordFillsEveryPropertyInOrder) {
  pelmora::testing::ScopedTimeZone zone("UTC0");
  FileInfoRecord record;
  record.attributes = 0x20;
  record.size = 705032704;  // 5,000,000,000 bytes: the low 32 bits
  record.creation_time = FileTimeOfUnix(0);
  record.last_access_time = FileTimeOfUnix(60);
  record.last_write_time = FileTimeOfUnix(3600);
  record.name = "shop.ini";
  record.full_path = "D:\\Data\\shop.ini";
  record.parent_path = "D:\\Data";
  const RCFileInfo info = RCFileInfo::FromRecord(record);
  EXPECT_EQ(info.FileAttribues(), 0x20);
  EXPECT_EQ(info.FileSize(), 705032704);
  EXPECT_EQ(Text(info.CreationTime()), "1970-01-01 00:00:00");
  EXPECT_EQ(Text(info.LastAccessTime()), "1970-01-01 00:01:00");
  EXPECT_EQ(Text(info.LastWriteTime()), "1970-01-01 01:00:00");
  EXPECT_EQ(info.FileName(), "shop.ini");
  EXPECT_EQ(info.FullPathName(), "D:\\Data\\shop.ini");
  EXPECT_EQ(info.ParentPath(), "D:\\Data");
}

TEST(RCFileInfoCollection, ItemsAreOneBasedAndShared) {
  RCFileInfoCollection files;
  EXPECT_EQ(files.Count(), 0);
  for (const char* name : {"a", "b"}) {
    RCFileInfo info;
    info.SetFileName(name);
    files.Add(info);
  }
  EXPECT_EQ(files.Count(), 2);
  EXPECT_EQ(files.Item(1)->FileName(), "a");
  EXPECT_EQ(files.Item(2)->FileName(), "b");
  EXPECT_EQ(files.Item(1), files.Item(1));
  for (int32_t bad : {0, 3, -1}) {
    try {
      files.Item(bad);
      ADD_FAILURE() << bad;
    } catch (const Error& e) {
      EXPECT_EQ(e.Number(), 9);
      EXPECT_EQ(e.Description(), "Subscript out of range");
    }
  }
}

}  // namespace
}  // namespace pelmora::admin
