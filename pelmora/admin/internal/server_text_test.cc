#include "pelmora/admin/internal/server_text.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <ostream>

#include "pelmora/common/internal/log_test_support.h"

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
  CivilTime month_first;  // read with the day and month order of a US locale
  CivilTime day_first;    // read with that of a British or German locale
};

void PrintTo(const DateCase& c, std::ostream* os) { *os << '"' << c.in << '"'; }

class ParseServerDateTest : public ::testing::TestWithParam<DateCase> {};

TEST_P(ParseServerDateTest, ReadsTheServersShortFormsInEitherDayOrder) {
  for (const DayOrder order : {DayOrder::kMonthFirst, DayOrder::kDayFirst}) {
    const std::optional<Date> date = ParseServerDate(GetParam().in, order);
    ASSERT_TRUE(date.has_value()) << GetParam().in;
    EXPECT_EQ(date->ToCivil(),
              order == DayOrder::kDayFirst ? GetParam().day_first : GetParam().month_first)
        << GetParam().in;
  }
}

constexpr CivilTime k14March{2009, 3, 14, 20, 5, 9};

INSTANTIATE_TEST_SUITE_P(
    Forms, ParseServerDateTest,
    ::testing::Values(
        DateCase{"2009-03-14 08:05:09", {2009, 3, 14, 8, 5, 9}, {2009, 3, 14, 8, 5, 9}},
        DateCase{"2009-03-14", {2009, 3, 14, 0, 0, 0}, {2009, 3, 14, 0, 0, 0}},
        DateCase{"2009/03/14 20:05:09", k14March, k14March},
        DateCase{"  2009-3-4 8:05 ", {2009, 3, 4, 8, 5, 0}, {2009, 3, 4, 8, 5, 0}},
        DateCase{"14/03/2009 20:05:09", k14March, k14March},
        DateCase{"14.03.2009 20:05:09", k14March, k14March},
        DateCase{"14-03-2009 20:05:09", k14March, k14March},
        DateCase{"3/14/2009 8:05:09 PM", k14March, k14March},
        DateCase{"14.03.09 20:05:09", k14March, k14March},
        DateCase{"3/4/31 0:00", {1931, 3, 4, 0, 0, 0}, {1931, 4, 3, 0, 0, 0}},
        DateCase{"03/04/2009 23:10:00", {2009, 3, 4, 23, 10, 0}, {2009, 4, 3, 23, 10, 0}},
        DateCase{"04.03.2009 23:10", {2009, 4, 3, 23, 10, 0}, {2009, 3, 4, 23, 10, 0}},
        DateCase{"3/14/2009 12:00:01 AM", {2009, 3, 14, 0, 0, 1}, {2009, 3, 14, 0, 0, 1}},
        DateCase{"12/31/1999 12:59:59 pm", {1999, 12, 31, 12, 59, 59}, {1999, 12, 31, 12, 59, 59}},
        DateCase{"8:05:09 AM", {1899, 12, 30, 8, 5, 9}, {1899, 12, 30, 8, 5, 9}}));

TEST(ParseServerDate, RefusesTextsThatAreNotDates) {
  for (const char* text :
       {"", "   ", "tomorrow", "2009-02-30", "13/13/2009", "31/31/09", "3/14/209",
        "2009-03-14 25:00:00", "3/14/2009 13:00:00 PM", "3/14/2009 8:00 XM",
        "2009-03-14 08:05:09 PM extra", "2009-03/14", "1-2-3", "2009-03-14 8:5:9:1", "2009-03-14x",
        "14.03.2009.", "2009-14-03"}) {
    EXPECT_FALSE(ParseServerDate(text, DayOrder::kMonthFirst).has_value()) << text;
    EXPECT_FALSE(ParseServerDate(text, DayOrder::kDayFirst).has_value()) << text;
  }
}

// The order follows the locale the environment names; the C locale writes the month first.
TEST(ParseServerDate, TakesTheDayOrderFromTheEnvironmentsLocale) {
  {
    pelmora::internal::ScopedEnv c_locale("LC_ALL", "C");
    EXPECT_EQ(LocaleDayOrder(), DayOrder::kMonthFirst);
    EXPECT_EQ(ParseServerDate("03/04/2009")->ToCivil(), (CivilTime{2009, 3, 4, 0, 0, 0}));
  }
  pelmora::internal::ScopedEnv british("LC_ALL", "en_GB.UTF-8");
  const locale_t installed = ::newlocale(LC_TIME_MASK, "", static_cast<locale_t>(nullptr));
  if (installed == static_cast<locale_t>(nullptr)) GTEST_SKIP() << "en_GB.UTF-8 is not installed";
  ::freelocale(installed);
  EXPECT_EQ(LocaleDayOrder(), DayOrder::kDayFirst);
  EXPECT_EQ(ParseServerDate("03/04/2009")->ToCivil(), (CivilTime{2009, 4, 3, 0, 0, 0}));
}

}  // namespace
}  // namespace pelmora::admin::internal
