// The record statements executed on an embedded SQLite database, with the rows read back.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelmora/db/internal/odbc.h"
#include "pelmora/db/sqldb.h"
#include "pelmora/db/internal/test_support.h"
#include "pelmora/testing/postgres_server.h"

namespace pelmora::db {
namespace {

using internal::ReadRows;
using testing::TempFolder;

Variant Array(std::vector<Variant> items, int32_t lower_bound = 0) {
  return Variant(VariantArray{lower_bound, std::move(items)});
}

class SqlDbBuilders : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(db_.Connect(folder_.Path("data.db"))) << db_.ErrDescription();
    ASSERT_TRUE(db_.RunSQLNoReturn(
        "CREATE TABLE T (K INTEGER PRIMARY KEY, A INTEGER, B TEXT, D TIMESTAMP, F DOUBLE)"))
        << db_.ErrDescription();
  }

  // Every row of T as "K|A|B|D|F" with Null shown as "<null>", ordered by K.
  std::vector<std::string> Rows() { return ReadRows(db_, "SELECT K, A, B, D, F FROM T ORDER BY K"); }

  TempFolder folder_;
  SQLDB db_;
};

TEST_F(SqlDbBuilders, InsertRecordSqlWritesEachValueType) {
  Date date = *Date::FromCivil({2009, 3, 14, 8, 5, 9});
  ASSERT_TRUE(db_.InsertRecordSQL("T", Array({"K", "A", "B", "D", "F"}),
                                  Array({1, true, "O'Brien", Variant(date), 2.5})))
      << db_.ErrDescription();
  ASSERT_TRUE(db_.InsertRecordSQL("T", Array({"K", "A", "B", "F"}, 1),
                                  Array({2, Variant(), Variant(Null{}), Variant(Currency{12345})}, 1)))
      << db_.ErrDescription();
  EXPECT_EQ(Rows(), (std::vector<std::string>{"1|1|O'Brien|3/14/2009 8:05:09 AM|2.5",
                                              "2|<null>|<null>|<null>|1.2345"}));
  EXPECT_EQ(db_.ErrNumber(), 0);
}

TEST_F(SqlDbBuilders, UpdateRecordSqlChangesOnlyTheMatchingRows) {
  for (int k = 1; k <= 3; ++k) {
    ASSERT_TRUE(db_.InsertRecordSQL("T", Array({"K", "A", "B"}), Array({k, k * 10, "x"})));
  }
  ASSERT_TRUE(db_.UpdateRecordSQL("T", Array({"A", -1, "B", "it's"}), Array({"K", 2, "B", "x"})))
      << db_.ErrDescription();
  EXPECT_EQ(Rows(), (std::vector<std::string>{"1|10|x|<null>|<null>", "2|-1|it's|<null>|<null>",
                                              "3|30|x|<null>|<null>"}));
}

TEST_F(SqlDbBuilders, HostileNamesAndValuesStayQuoted) {
  // The SQLite driver scans statements without knowing brackets, so names here avoid quotes and
  // semicolons; values may hold anything.
  ASSERT_TRUE(db_.RunSQLNoReturn("CREATE TABLE [we ird] ([co l] TEXT, [x*%y] TEXT)"));
  const std::string hostile = "x'); DROP TABLE T; --";
  ASSERT_TRUE(db_.InsertRecordSQL("we ird", Array({"co l", "x*%y"}), Array({hostile, "]'[\\"})))
      << db_.ErrDescription();
  EXPECT_EQ(ReadRows(db_, "SELECT * FROM [we ird]"),
            (std::vector<std::string>{hostile + "|]'[\\"}));
  // SQLite does not read "]]" inside brackets: a name with "]" fails instead of escaping.
  EXPECT_FALSE(db_.InsertRecordSQL("T]; DROP TABLE T; --", Array({"A"}), Array({1})));
  EXPECT_FALSE(db_.UpdateRecordSQL("T", Array({"A]=1; DROP TABLE T; --", 1}), Array({"K", 1})));
  EXPECT_EQ(ReadRows(db_, "SELECT COUNT(*) FROM T"), (std::vector<std::string>{"0"}));
}

TEST_F(SqlDbBuilders, EscapeLikeMatchesWildcardsAndLiteralPercent) {
  for (const char* b : {"50%", "500", "a_b", "axb", "O'Neil", "Oxx"}) {
    ASSERT_TRUE(db_.InsertRecordSQL("T", Array({"B"}), Array({b})));
  }
  auto matching = [&](const std::string& pattern) {
    return ReadRows(db_, "SELECT B FROM T WHERE B LIKE " + db_.EscapeLike(pattern) + " ORDER BY B");
  };
  EXPECT_EQ(matching("50%"), (std::vector<std::string>{"50%"}));
  EXPECT_EQ(matching("a_b"), (std::vector<std::string>{"a_b"}));
  EXPECT_EQ(matching("a?b"), (std::vector<std::string>{"a_b", "axb"}));
  EXPECT_EQ(matching("O'*"), (std::vector<std::string>{"O'Neil"}));
  EXPECT_EQ(matching("**0*"), (std::vector<std::string>{"50%", "500"}));
}

TEST_F(SqlDbBuilders, FailedStatementAppendsItsTextToTheDescription) {
  EXPECT_FALSE(db_.InsertRecordSQL("Missing", Array({"A"}), Array({1})));
  EXPECT_EQ(db_.ErrNumber(), internal::kErrorProviderFailed);
  EXPECT_EQ(db_.ErrDescription(),
            "[SQLite]no such table: Missing (1) (SQLSTATE HY000, native error 1)"
            "(INSERT INTO [Missing]([A]) values (1))");
}

TEST_F(SqlDbBuilders, EmptyArraysSendTheMalformedStatementAsItIs) {
  EXPECT_FALSE(db_.UpdateRecordSQL("T", Array({}), Array({})));
  std::string description = db_.ErrDescription();
  EXPECT_EQ(description.substr(description.find('(', description.find("native error")) + 0),
            "(UPDATE [T]SET  WHERE )")
      << description;
}

TEST_F(SqlDbBuilders, UnicodeTextPrefixIsRefusedBySqlite) {
  EXPECT_FALSE(db_.InsertRecordSQL("T", Array({"B"}), Array({"x"}), true));
  EXPECT_NE(db_.ErrDescription().find("(INSERT INTO [T]([B]) values (N'x'))"), std::string::npos)
      << db_.ErrDescription();
}

TEST_F(SqlDbBuilders, BadArraysFailWithTheirRunTimeErrors) {
  struct Case {
    Variant values;
    Variant wheres;
    int32_t number;
  };
  const Case cases[] = {
      {Array({"A", 1, "B"}), Array({"K", 1}), 9},  // the last name has no value
      {Variant("A"), Array({"K", 1}), 13},         // not an array
      {Array({Variant(Null{}), 1}), Array({"K", 1}), 94},
      {Array({"A", Array({1})}), Array({"K", 1}), 13},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.number);
    EXPECT_FALSE(db_.UpdateRecordSQL("T", c.values, c.wheres));
    EXPECT_EQ(db_.ErrNumber(), c.number);
  }
  EXPECT_FALSE(db_.InsertRecordSQL("T", Array({"A", "B"}), Array({1})));
  EXPECT_EQ(db_.ErrNumber(), 9);
  EXPECT_EQ(db_.ErrDescription(), "Subscript out of range");
}

TEST(SqlDbBuildersClosed, FailWithoutAConnection) {
  SQLDB db;
  EXPECT_FALSE(db.InsertRecordSQL("T", Array({"A"}), Array({1})));
  EXPECT_EQ(db.ErrNumber(), 3704);
  EXPECT_EQ(db.ErrDescription(),
            "Operation is not allowed when the object is closed.(INSERT INTO [T]([A]) values (1))");
}

}  // namespace
}  // namespace pelmora::db
