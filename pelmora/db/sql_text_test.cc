#include "pelmora/db/sql_text.h"

#include <gtest/gtest.h>

#include <clocale>
#include <locale>
#include <string>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora::db {
namespace {

VariantArray Array(std::vector<Variant> items, int32_t lower_bound = 0) {
  return VariantArray{lower_bound, std::move(items)};
}

struct QuoteCase {
  std::string input;
  std::string name;
  std::string value;
  std::string like;
};

TEST(SqlText, QuotesNamesValuesAndLikePatterns) {
  const QuoteCase cases[] = {
      {"", "[]", "''", "'' ESCAPE '\\'"},
      {"a]b", "[a]]b]", "'a]b'", "'a]b' ESCAPE '\\'"},
      {"O'Brien", "[O'Brien]", "'O''Brien'", "'O''Brien' ESCAPE '\\'"},
      {"a**b?", "[a**b?]", "'a**b?'", "'a%b_' ESCAPE '\\'"},
      {"50%", "[50%]", "'50%'", "'50\\%' ESCAPE '\\'"},
      {"*x*", "[*x*]", "'*x*'", "'%x%' ESCAPE '\\'"},
      {"[a]_b\\", "[[a]]_b\\]", "'[a]_b\\'", "'\\[a]\\_b\\\\' ESCAPE '\\'"},
      {"*?*", "[*?*]", "'*?*'", "'%_%' ESCAPE '\\'"},
      {"]]", "[]]]]]", "']]'", "']]' ESCAPE '\\'"},
      {"''", "['']", "''''''", "'''''' ESCAPE '\\'"},
      {"x'; DROP TABLE T; --", "[x'; DROP TABLE T; --]", "'x''; DROP TABLE T; --'",
       "'x''; DROP TABLE T; --' ESCAPE '\\'"},
      {"Zoë", "[Zoë]", "'Zoë'", "'Zoë' ESCAPE '\\'"},
  };
  for (const QuoteCase& c : cases) {
    SCOPED_TRACE(c.input);
    EXPECT_EQ(EscapeName(c.input), c.name);
    EXPECT_EQ(EscapeValue(c.input), c.value);
    EXPECT_EQ(EscapeLike(c.input), c.like);
  }
}

struct LiteralCase {
  Variant value;
  bool unicode;
  std::string literal;
};

TEST(SqlText, WritesEachValueTypeAsItsLiteral) {
  Date date = *Date::FromCivil({2009, 3, 14, 8, 5, 9});
  const LiteralCase cases[] = {
      {Variant(), false, "NULL"},
      {Variant(Null{}), true, "NULL"},
      {Variant(int16_t{-12}), false, "-12"},
      {Variant(int32_t{2147483647}), false, "2147483647"},
      {Variant(uint8_t{255}), false, "255"},
      {Variant(2.5f), false, "2.5"},
      {Variant(0.1), false, "0.1"},
      {Variant(-1234.5678), false, "-1234.5678"},
      {Variant(1e20), false, "1E+20"},
      {Variant(0.1 + 0.2), false, "0.3"},
      {Variant(1e-5), false, "1E-05"},
      {Variant(0.0001), false, "0.0001"},
      {Variant(123456789012345.6), false, "123456789012346"},
      {Variant(-100.0), false, "-100"},
      {Variant(Currency{123456}), false, "12.3456"},
      {Variant(Currency{-50000}), false, "-5"},
      {Variant(true), false, "1"},
      {Variant(false), true, "0"},
      {Variant(date), false, "'2009-03-14 08:05:09'"},
      {Variant(date), true, "'2009-03-14 08:05:09'"},
      {Variant(Date()), false, "'1899-12-30 00:00:00'"},
      {Variant("x"), false, "'x'"},
      {Variant("x"), true, "N'x'"},
      {Variant(""), true, "N''"},
      {Variant("it's"), false, "'it''s'"},
      {Variant(std::vector<uint8_t>{'h', 0, 'i', 0}), true, "N'hi'"},
  };
  for (const LiteralCase& c : cases) {
    SCOPED_TRACE(c.value.DebugString());
    EXPECT_EQ(ValueLiteral(c.value, c.unicode), c.literal);
  }
}

// A numeric punctuation with a comma decimal separator and a point for thousands.
struct CommaDecimal : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(SqlText, WritesNumbersWithAPointUnderACommaLocale) {
  std::locale saved = std::locale::global(std::locale(std::locale::classic(), new CommaDecimal));
  // The C locale as well where one with a comma is installed.
  std::string saved_c = std::setlocale(LC_ALL, nullptr);
  if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) std::setlocale(LC_ALL, "fr_FR.UTF-8");
  EXPECT_EQ(ValueLiteral(Variant(1234.5), false), "1234.5");
  EXPECT_EQ(ValueLiteral(Variant(Currency{12345000}), false), "1234.5");
  EXPECT_EQ(ValueLiteral(Variant(0.25f), false), "0.25");
  EXPECT_EQ(ValueLiteral(Variant(int32_t{1000000}), false), "1000000");
  std::setlocale(LC_ALL, saved_c.c_str());
  std::locale::global(saved);
}

TEST(SqlText, DoublesKeepTheFifteenDigitTextOfVariant) {
  double value = 1.0;
  for (int i = 1; i < 2000; ++i) {
    for (double d : {i * 1.5, i / 7.0, -i / 3.0, value, 1.0 / value, i * 1e10 + 0.25}) {
      ASSERT_EQ(ValueLiteral(Variant(d), false), Variant(d).ToString()) << d;
    }
    value *= 1.37;
  }
}

TEST(SqlText, RefusesValuesWithoutText) {
  EXPECT_EQ(testing::RaisedError([] { ValueLiteral(Variant(Array({1})), false); }).Number(), 13);
  EXPECT_EQ(testing::RaisedError([] { ValueLiteral(Variant::Nothing(), false); }).Number(), 13);
}

struct UpdateCase {
  std::string table;
  VariantArray values;
  VariantArray wheres;
  bool unicode;
  std::string statement;
};

TEST(SqlText, BuildsUpdateStatementsCharacterForCharacter) {
  const UpdateCase cases[] = {
      {"T", Array({"A", 1, "B", "x"}), Array({"K", 5}), false,
       "UPDATE [T]SET [A]=1,[B]='x' WHERE  [K]=5"},
      {"T", Array({"A", 1}), Array({"K", 5, "L", "y"}), true,
       "UPDATE [T]SET [A]=1 WHERE  [K]=5 AND [L]=N'y'"},
      {"T", Array({}), Array({}), false, "UPDATE [T]SET  WHERE "},
      {"T", Array({"A", Variant()}, 1), Array({"K", true}, 1), false,
       "UPDATE [T]SET [A]=NULL WHERE  [K]=1"},
      {"a]b", Array({"c]d", "O'Brien"}), Array({"e", Variant(Null{})}), false,
       "UPDATE [a]]b]SET [c]]d]='O''Brien' WHERE  [e]=NULL"},
  };
  for (const UpdateCase& c : cases) {
    SCOPED_TRACE(c.statement);
    EXPECT_EQ(BuildUpdateStatement(c.table, c.values, c.wheres, c.unicode), c.statement);
  }
}

TEST(SqlText, UpdateWithANameMissingItsValueRaisesSubscriptOutOfRange) {
  Error raised = testing::RaisedError(
      [] { BuildUpdateStatement("T", Array({"A", 1, "B"}), Array({"K", 5}), false); });
  EXPECT_EQ(raised.Number(), 9);
  EXPECT_EQ(raised.Description(), "Subscript out of range");
}

struct InsertCase {
  std::string table;
  VariantArray fields;
  VariantArray values;
  bool unicode;
  std::string statement;
};

TEST(SqlText, BuildsInsertStatementsCharacterForCharacter) {
  Date date = *Date::FromCivil({2024, 2, 29, 23, 59, 58});
  const InsertCase cases[] = {
      {"T", Array({"A", "B"}), Array({1, "x"}), false, "INSERT INTO [T]([A],[B]) values (1,'x')"},
      {"T", Array({"A", "B", "C"}), Array({Variant(date), "x", false}), true,
       "INSERT INTO [T]([A],[B],[C]) values ('2024-02-29 23:59:58',N'x',0)"},
      {"T", Array({"A"}, 1), Array({Variant(), 7}, 0), false, "INSERT INTO [T]([A]) values (7)"},
      {"T", Array({}), Array({}), false, "INSERT INTO [T]() values ()"},
  };
  for (const InsertCase& c : cases) {
    SCOPED_TRACE(c.statement);
    EXPECT_EQ(BuildInsertStatement(c.table, c.fields, c.values, c.unicode), c.statement);
  }
}

TEST(SqlText, InsertWithFewerValuesThanFieldsRaisesSubscriptOutOfRange) {
  Error raised = testing::RaisedError(
      [] { BuildInsertStatement("T", Array({"A", "B"}), Array({1}), false); });
  EXPECT_EQ(raised.Number(), 9);
}

}  // namespace
}  // namespace pelmora::db
