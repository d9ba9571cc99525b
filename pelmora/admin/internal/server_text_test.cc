#include "pelmora/admin/internal/server_text.h"

#include <gtest/gtest.h>

namespace pelmora::admin::internal {
namespace {

struct PathCase {
  const char* in;
  const char* out;
};

class NormaliseServerPathTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(NormaliseServerPathTest, GivesTheServersFullForm) {
  EXPECT_EQ(NormaliseServerPath(GetParam().in), GetParam().out) << GetParam().in;
}

INSTANTIATE_TEST_SUITE_P(
    Forms, NormaliseServerPathTest,
    ::testing::Values(PathCase{"C:\\Qel\\Program\\..\\..", "C:\\"},
                      PathCase{"C:\\Apps\\Qel\\Program\\..\\..", "C:\\Apps"},
                      PathCase{"d:/apps/qel/bin/../..", "d:\\apps"},
                      PathCase{"C:\\a\\\\b\\.\\c\\", "C:\\a\\b\\c\\"},
                      PathCase{"C:\\..\\..\\a", "C:\\a"}, PathCase{"C:", "C:\\"},
                      PathCase{"C:rel\\x\\..", "C:\\rel"},
                      PathCase{"\\\\srv\\share\\a\\b\\..\\..", "\\\\srv\\share\\"},
                      PathCase{"//srv/share/a/./b/../c", "\\\\srv\\share\\a\\c"},
                      PathCase{"\\\\srv\\share\\..\\..\\x", "\\\\srv\\share\\x"},
                      PathCase{"\\Program\\Qel\\..\\..", "\\"}, PathCase{"/a/b/../c", "\\a\\c"},
                      PathCase{"a\\b\\..\\..\\..\\c", "..\\c"}, PathCase{"a\\..", "."},
                      PathCase{"C:\\Program Files\\Qel 2\\bin\\..\\..", "C:\\Program Files"}));

struct DateCase {
  const char* in;
  CivilTime out;
};

class ParseServerDateTest : public ::testing::TestWithParam<DateCase> {};

TEST_P(ParseServerDateTest, ReadsTheServersShortForms) {
  std::optional<Date> date = ParseServerDate(GetParam().in);
  ASSERT_TRUE(date.has_value()) << GetParam().in;
  EXPECT_EQ(date->ToCivil(), GetParam().out) << GetParam().in;
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ParseServerDateTest,
    ::testing::Values(DateCase{"2009-03-14 08:05:09", {2009, 3, 14, 8, 5, 9}},
                      DateCase{"2009-03-14", {2009, 3, 14, 0, 0, 0}},
                      DateCase{"  2009-3-4 8:05 ", {2009, 3, 4, 8, 5, 0}},
                      DateCase{"3/14/2009 8:05:09 PM", {2009, 3, 14, 20, 5, 9}},
                      DateCase{"3/14/2009 12:00:01 AM", {2009, 3, 14, 0, 0, 1}},
                      DateCase{"12/31/1999 12:59:59 pm", {1999, 12, 31, 12, 59, 59}},
                      DateCase{"03/04/2009 23:10:00", {2009, 3, 4, 23, 10, 0}},
                      DateCase{"8:05:09 AM", {1899, 12, 30, 8, 5, 9}}));

TEST(ParseServerDate, RefusesTextsThatAreNotDates) {
  for (const char* text :
       {"", "   ", "tomorrow", "2009-02-30", "13/1/2009", "3/14/09", "2009-03-14 25:00:00",
        "3/14/2009 13:00:00 PM", "3/14/2009 8:00 XM", "2009-03-14 08:05:09 PM extra", "2009/03/14",
        "1-2-3", "2009-03-14 8:5:9:1", "2009-03-14x"}) {
    EXPECT_FALSE(ParseServerDate(text).has_value()) << text;
  }
}

}  // namespace
}  // namespace pelmora::admin::internal
