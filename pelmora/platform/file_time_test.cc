#include "pelmora/platform/file_time.h"

#include <gtest/gtest.h>

#include <limits>

namespace pelmora::platform {
namespace {

struct Case {
  int64_t seconds;
  int64_t nanoseconds;
  uint64_t filetime;
};

TEST(FileTime, ConvertsBothWaysTo100Nanoseconds) {
  for (Case c : {Case{0, 0, 116444736000000000u},
                 Case{1622550896, 789000000, 132670244967890000u},
                 Case{-kFileTimeUnixEpochSeconds, 0, 0u},
                 Case{-1, 999999900, 116444735999999999u},
                 Case{4102444800, 100, 157469184000000001u}}) {  // 2100-01-01
    EXPECT_EQ(FileTimeFromUnix(c.seconds, c.nanoseconds), c.filetime) << c.seconds;
    UnixTime back = UnixFromFileTime(c.filetime);
    EXPECT_EQ(back.seconds, c.seconds);
    EXPECT_EQ(back.nanoseconds, c.nanoseconds);
  }
}

TEST(FileTime, ClampsOutsideTheFileTimeRange) {
  EXPECT_EQ(FileTimeFromUnix(-kFileTimeUnixEpochSeconds - 1, 999999999), 0u);
  EXPECT_EQ(FileTimeFromUnix(std::numeric_limits<int64_t>::min(), 0), 0u);
  EXPECT_EQ(FileTimeFromUnix(std::numeric_limits<int64_t>::max() - kFileTimeUnixEpochSeconds, 0),
            std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(FileTimeFromUnix(0, 99), 116444736000000000u);  // below one tick
  UnixTime last = UnixFromFileTime(std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(FileTimeFromUnix(last.seconds, last.nanoseconds),
            std::numeric_limits<uint64_t>::max());
}

}  // namespace
}  // namespace pelmora::platform
