#include "pelmora/common/variant.h"

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>

#include "pelmora/common/error.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

Date MakeDate(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
  return *Date::FromCivil({y, mo, d, h, mi, s});
}

struct LongCase {
  Variant input;
  int32_t expected = 0;
};
void PrintTo(const LongCase& c, std::ostream* os) { *os << c.input; }

class ToLongTest : public ::testing::TestWithParam<LongCase> {};

TEST_P(ToLongTest, ConvertsWithHalfToEvenRounding) {
  EXPECT_EQ(GetParam().input.ToLong(), GetParam().expected) << GetParam().input.TypeName();
}

INSTANTIATE_TEST_SUITE_P(
    Variant, ToLongTest,
    ::testing::Values(LongCase{Variant(), 0}, LongCase{Variant(2.5), 2}, LongCase{Variant(3.5), 4},
                      LongCase{Variant(-2.5), -2}, LongCase{Variant(2.51), 3},
                      LongCase{Variant(1.5f), 2}, LongCase{Variant(true), -1},
                      LongCase{Variant(false), 0}, LongCase{Variant(uint8_t{255}), 255},
                      LongCase{Variant(int16_t{-7}), -7}, LongCase{Variant(Currency{25000}), 2},
                      LongCase{Variant(Currency{35000}), 4},
                      LongCase{Variant(Currency{-15001}), -2}, LongCase{Variant(" 12.5 "), 12},
                      LongCase{Variant("1,234"), 1234}, LongCase{Variant("-1e3"), -1000},
                      LongCase{Variant("&HFF"), 255}, LongCase{Variant("&HFFFF"), -1},
                      LongCase{Variant("&H10000"), 65536}, LongCase{Variant("&O17"), 15},
                      LongCase{Variant("True"), -1}, LongCase{Variant(2147483647.4), 2147483647},
                      LongCase{Variant(MakeDate(1900, 1, 1, 12)), 2}));

struct FailCase {
  std::string name;
  std::function<void()> convert;
  int32_t number = 0;
  std::string text;
};
void PrintTo(const FailCase& c, std::ostream* os) { *os << c.name; }

class ConversionFailureTest : public ::testing::TestWithParam<FailCase> {};

TEST_P(ConversionFailureTest, RaisesNumberedError) {
  Error e = pelmora::testing::RaisedError(GetParam().convert);
  EXPECT_EQ(e.Number(), GetParam().number);
  EXPECT_EQ(e.Description(), GetParam().text);
}

const std::string kMismatch = "Type mismatch";
const std::string kOverflow = "Overflow";
const std::string kNullUse = "Invalid use of Null";

INSTANTIATE_TEST_SUITE_P(
    Variant, ConversionFailureTest,
    ::testing::Values(
        FailCase{"LongAboveRange", [] { Variant(2147483647.5).ToLong(); }, 6, kOverflow},
        FailCase{"IntegerAboveRange", [] { Variant(32767.5).ToInteger(); }, 6, kOverflow},
        FailCase{"IntegerBelowRange", [] { Variant(-32769).ToInteger(); }, 6, kOverflow},
        FailCase{"ByteNegative", [] { Variant(-1).ToByte(); }, 6, kOverflow},
        FailCase{"ByteFromBigInteger", [] { Variant(int16_t{300}).ToByte(); }, 6, kOverflow},
        FailCase{"LongFromHugeCurrency", [] { Variant(Currency{int64_t{1} << 50}).ToLong(); }, 6,
                 kOverflow},
        FailCase{"SingleFromHugeDouble", [] { Variant(1e300).ToSingle(); }, 6, kOverflow},
        FailCase{"CurrencyFromHugeDouble", [] { Variant(1e16).ToCurrency(); }, 6, kOverflow},
        FailCase{"DoubleFromHugeText", [] { Variant("1e999").ToDouble(); }, 6, kOverflow},
        FailCase{"DateBeyondYear9999", [] { Variant(3e6).ToDate(); }, 6, kOverflow},
        FailCase{"LongFromWords", [] { Variant("twelve").ToLong(); }, 13, kMismatch},
        FailCase{"LongFromEmptyText", [] { Variant("").ToLong(); }, 13, kMismatch},
        FailCase{"LongFromTrailingJunk", [] { Variant("12abc").ToLong(); }, 13, kMismatch},
        FailCase{"BoolFromWords", [] { Variant("yes").ToBool(); }, 13, kMismatch},
        FailCase{"DateFromWords", [] { Variant("soon").ToDate(); }, 13, kMismatch},
        FailCase{"DateFromBadDay", [] { Variant("2009-02-30").ToDate(); }, 13, kMismatch},
        FailCase{"LongFromArray", [] { Variant(VariantArray{}).ToLong(); }, 13, kMismatch},
        FailCase{"LongFromBytes", [] { Variant(std::vector<uint8_t>{1}).ToLong(); }, 13, kMismatch},
        FailCase{"StringFromNothing", [] { Variant::Nothing().ToString(); }, 13, kMismatch},
        FailCase{"BytesFromNumber", [] { Variant(5).ToBytes(); }, 13, kMismatch},
        FailCase{"ArrayFromText", [] { Variant("a").ToArray(); }, 13, kMismatch},
        FailCase{"ObjectFromNumber", [] { Variant(5).ToObject(); }, 424, "Object required"},
        FailCase{"LongFromNull", [] { Variant(Null{}).ToLong(); }, 94, kNullUse},
        FailCase{"StringFromNull", [] { Variant(Null{}).ToString(); }, 94, kNullUse},
        FailCase{"SubscriptBelowLowerBound",
                 [] {
                   VariantArray{1, {Variant(1)}}.At(0);
                 },
                 9, "Subscript out of range"}),
    [](const ::testing::TestParamInfo<FailCase>& info) { return info.param.name; });

struct TextCase {
  Variant input;
  std::string expected;
};
void PrintTo(const TextCase& c, std::ostream* os) { *os << c.input; }

class ToStringTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(ToStringTest, FormatsAsTheAutomationLanguageDoes) {
  EXPECT_EQ(GetParam().input.ToString(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Variant, ToStringTest,
    ::testing::Values(TextCase{Variant(), ""}, TextCase{Variant(true), "True"},
                      TextCase{Variant(false), "False"}, TextCase{Variant(-42), "-42"},
                      TextCase{Variant(0.1), "0.1"},
                      TextCase{Variant(1.0 / 3), "0.333333333333333"},
                      TextCase{Variant(1e20), "1E+20"}, TextCase{Variant(1.5e-5), "1.5E-05"},
                      TextCase{Variant(-0.0), "0"}, TextCase{Variant(100.0), "100"},
                      TextCase{Variant(1.1f), "1.1"}, TextCase{Variant(Currency{15000}), "1.5"},
                      TextCase{Variant(Currency{-12345}), "-1.2345"},
                      TextCase{Variant(Currency{20000}), "2"},
                      TextCase{Variant(MakeDate(2009, 3, 14, 8, 5, 9)), "3/14/2009 8:05:09 AM"},
                      TextCase{Variant(MakeDate(2009, 3, 14, 20, 5, 9)), "3/14/2009 8:05:09 PM"},
                      TextCase{Variant(MakeDate(2009, 3, 14)), "3/14/2009"},
                      TextCase{Variant(MakeDate(1899, 12, 30, 0, 30)), "12:30:00 AM"},
                      TextCase{Variant(std::vector<uint8_t>{'H', 0, 'i', 0}), "Hi"}));

struct DateCase {
  std::string input;
  Date expected;
};
void PrintTo(const DateCase& c, std::ostream* os) { *os << c.input; }

class ToDateTest : public ::testing::TestWithParam<DateCase> {};

TEST_P(ToDateTest, ReadsCommonDateTexts) {
  EXPECT_EQ(Variant(GetParam().input).ToDate(), GetParam().expected) << GetParam().input;
}

INSTANTIATE_TEST_SUITE_P(
    Variant, ToDateTest,
    ::testing::Values(DateCase{"2009-03-14", MakeDate(2009, 3, 14)},
                      DateCase{"2009-03-14 08:05:09", MakeDate(2009, 3, 14, 8, 5, 9)},
                      DateCase{"2009-03-14T08:05", MakeDate(2009, 3, 14, 8, 5)},
                      DateCase{"3/14/2009 8:05:09 PM", MakeDate(2009, 3, 14, 20, 5, 9)},
                      DateCase{"3/14/09", MakeDate(2009, 3, 14)},
                      DateCase{"1/2/45", MakeDate(1945, 1, 2)},
                      DateCase{"12:00:00 AM", MakeDate(1899, 12, 30)},
                      DateCase{"14 Mar 2009", MakeDate(2009, 3, 14)},
                      DateCase{"March 14, 2009 12:15 pm", MakeDate(2009, 3, 14, 12, 15)}));

TEST(Variant, DateTextRoundTripsThroughToString) {
  Date date = MakeDate(2021, 11, 5, 23, 59, 58);
  EXPECT_EQ(Variant(Variant(date).ToString()).ToDate(), date);
}

TEST(Variant, NumbersConvertToDatesAsSerials) {
  EXPECT_EQ(Variant(39886.5).ToDate(), MakeDate(2009, 3, 14, 12));
  EXPECT_DOUBLE_EQ(Variant(MakeDate(2009, 3, 14, 12)).ToDouble(), 39886.5);
}

TEST(Variant, BooleansFollowTrueIsMinusOne) {
  EXPECT_TRUE(Variant(-1).ToBool());
  EXPECT_TRUE(Variant(0.5).ToBool());
  EXPECT_FALSE(Variant("0").ToBool());
  EXPECT_TRUE(Variant(" TRUE ").ToBool());
  EXPECT_FALSE(Variant().ToBool());
  EXPECT_EQ(Variant(true).ToInteger(), -1);
  EXPECT_EQ(Variant(true).ToCurrency(), Currency{-10000});
}

TEST(Variant, CurrencyKeepsFourDecimalsRoundingHalfToEven) {
  EXPECT_EQ(Variant(1.0 / 32).ToCurrency(), Currency{312});  // 312.5 ten-thousandths
  EXPECT_EQ(Variant(3.0 / 32).ToCurrency(), Currency{938});
  EXPECT_EQ(Variant("0.1").ToCurrency(), Currency{1000});
  EXPECT_EQ(Variant(7).ToCurrency(), Currency{70000});
  // The limits themselves: the largest amount's nearest double lies just past the 64-bit range.
  EXPECT_EQ(Variant("922337203685477.5807").ToCurrency(), Currency{INT64_MAX});
  EXPECT_EQ(Variant("-922337203685477.5808").ToCurrency(), Currency{INT64_MIN});
  EXPECT_DOUBLE_EQ(Variant(Currency{12345}).ToDouble(), 1.2345);
}

TEST(Variant, StringsAndByteArraysConvertAsUtf16CodeUnits) {
  EXPECT_EQ(Variant("Aé").ToBytes(), (std::vector<uint8_t>{'A', 0, 0xE9, 0}));
  EXPECT_EQ(Variant().ToBytes(), std::vector<uint8_t>{});
  VariantArray numbers{0, {Variant(1), Variant("2"), Variant(255.0)}};
  EXPECT_EQ(Variant(numbers).ToBytes(), (std::vector<uint8_t>{1, 2, 255}));
}

TEST(Variant, ArraysKeepTheirLowerBound) {
  VariantArray array{1, {Variant("a"), Variant("b")}};
  EXPECT_EQ(array.UpperBound(), 2);
  EXPECT_EQ(array.At(2), Variant("b"));
  Variant copy(array);
  array.At(1) = Variant("z");
  EXPECT_EQ(copy.ToArray().At(1), Variant("a"));  // arrays are values, copied on assignment
}

TEST(Variant, EqualityComparesTypeAndValue) {
  EXPECT_EQ(Variant(1), Variant(1));
  EXPECT_NE(Variant(1), Variant(int16_t{1}));
  EXPECT_NE(Variant(), Variant(Null{}));
  EXPECT_EQ(Variant::Nothing(), Variant(ObjectRef()));
  EXPECT_EQ(Variant(nullptr), Variant::Nothing());
  EXPECT_EQ(Variant(static_cast<const char*>(nullptr)), Variant(""));
}

TEST(Variant, DebugStringNamesTypeAndValueWithoutRaising) {
  EXPECT_EQ(Variant(5).DebugString(), "Long 5");
  EXPECT_EQ(Variant("a").DebugString(), "String \"a\"");
  EXPECT_EQ(Variant(Null{}).DebugString(), "Null");
  EXPECT_EQ(Variant(std::vector<uint8_t>{1, 2, 3}).DebugString(), "Byte()[3]");
  EXPECT_EQ(Variant(VariantArray{1, {Variant(), Variant()}}).DebugString(), "Variant(1 to 2)");
  EXPECT_EQ(Variant::Nothing().DebugString(), "Nothing");
}

TEST(Variant, TypeNamesMatchTheAutomationNames) {
  EXPECT_EQ(Variant().TypeName(), "Empty");
  EXPECT_EQ(Variant(int16_t{1}).TypeName(), "Integer");
  EXPECT_EQ(Variant(1).TypeName(), "Long");
  EXPECT_EQ(Variant(std::vector<uint8_t>{}).TypeName(), "Byte()");
  EXPECT_EQ(Variant(VariantArray{}).TypeName(), "Variant()");
  EXPECT_EQ(Variant::Nothing().TypeName(), "Nothing");
  EXPECT_TRUE(Variant::Nothing().IsNothing());
  EXPECT_FALSE(Variant().IsNothing());
}

}  // namespace
}  // namespace pelmora
