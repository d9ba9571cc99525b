#include "pelmorad/drive_path.h"

#include <gtest/gtest.h>

#include <string>

namespace pelmorad {
namespace {

struct PathCase {
  std::string text;
  int32_t error;
  std::string wire;      // expected Wire() when valid
  std::string relative;  // expected Relative() when valid
};

class ParseDrivePathTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(ParseDrivePathTest, ParsesOrRefusesWithTheReplyNumber) {
  const PathCase& c = GetParam();
  PathResult result = ParseDrivePath(c.text, 64);
  EXPECT_EQ(result.error, c.error) << c.text;
  if (c.error == 0) {
    ASSERT_TRUE(result.path.has_value()) << c.text;
    EXPECT_EQ(result.path->Wire(), c.wire);
    EXPECT_EQ(result.path->Relative(), c.relative);
  } else {
    EXPECT_FALSE(result.path.has_value()) << c.text;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ParseDrivePathTest,
    ::testing::Values(
        PathCase{"C:\\", 0, "C:\\", "."}, PathCase{"c:", 0, "C:\\", "."},
        PathCase{"C:\\Data\\shop.ini", 0, "C:\\Data\\shop.ini", "Data/shop.ini"},
        PathCase{"d:/logs//a/", 0, "D:\\logs\\a", "logs/a"},
        PathCase{"C:\\a\\.\\b\\..\\c", 0, "C:\\a\\c", "a/c"},
        PathCase{"C:\\a\\..\\..\\x", 5, "", ""}, PathCase{"C:\\..\\..\\etc\\passwd", 5, "", ""},
        PathCase{"\\\\server\\share\\x", 123, "", ""}, PathCase{"relative\\x", 123, "", ""},
        PathCase{"", 123, "", ""}, PathCase{std::string("C:\\a\0b", 6), 123, "", ""},
        PathCase{"C:\\a:stream", 123, "", ""}, PathCase{"C:\\a*", 123, "", ""},
        PathCase{"C:\\" + std::string(62, 'x'), 206, "", ""}, PathCase{"1:\\x", 123, "", ""}));

TEST(DrivePath, ParentChildAndContainment) {
  DrivePath path = *ParseDrivePath("C:\\a\\b", 64).path;
  EXPECT_EQ(path.Parent().Wire(), "C:\\a");
  EXPECT_EQ(path.Parent().Parent().Parent().Wire(), "C:\\");
  EXPECT_EQ(path.Name(), "b");
  EXPECT_TRUE(path.Parent().Contains(path));
  EXPECT_TRUE(path.Contains(path.Child("c")));
  EXPECT_FALSE(path.Contains(path.Parent()));
  DrivePath other = *ParseDrivePath("D:\\a\\b", 64).path;
  EXPECT_FALSE(path.Contains(other));
}

}  // namespace
}  // namespace pelmorad
