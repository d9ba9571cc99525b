// The connection half of SQLDB on the embedded SQLite database and on a PostgreSQL server.
#include "pelmora/db/sqldb.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "pelmora/db/internal/odbc.h"
#include "pelmora/db/internal/test_support.h"
#include "pelmora/testing/postgres_server.h"

// The PostgreSQL driver keeps one small allocation of its own until the process ends; the leak
// checker of the sanitizer build is told about it (the symbol is unused otherwise).
extern "C" const char* __lsan_default_suppressions() { return "leak:psqlodbcw.so\n"; }

namespace pelmora::db {
namespace {

using internal::Array;
using internal::ReadRows;
using testing::PostgresServer;
using testing::TempFolder;

enum class Backend { kSqlite, kPostgres };

class SqlDbConnection : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
    if (GetParam() == Backend::kPostgres) {
      PostgresServer* server = PostgresServer::Shared();
      ASSERT_TRUE(server->Running()) << server->Failure();
      connection_string_ = server->ConnectionString();
    } else {
      connection_string_ = folder_.Path("data.db");
    }
    ASSERT_TRUE(db_.Connect(connection_string_)) << db_.ErrDescription();
    // Each test starts from an empty table (the PostgreSQL server lives for the whole program).
    db_.RunSQLNoReturn("DROP TABLE IF EXISTS people");
    ASSERT_TRUE(db_.RunSQLNoReturn(
        "CREATE TABLE people (id INTEGER PRIMARY KEY, name VARCHAR(50), born TIMESTAMP, "
        "height DOUBLE PRECISION, balance NUMERIC(19,4), active BOOLEAN)"))
        << db_.ErrDescription();
  }

  bool Postgres() const { return GetParam() == Backend::kPostgres; }

  TempFolder folder_;
  std::string connection_string_;
  SQLDB db_;
};

TEST_P(SqlDbConnection, BoundParametersRoundTripEveryValueType) {
  Date born = *Date::FromCivil({1815, 12, 10, 6, 30, 0});
  ASSERT_TRUE(db_.RunSQLNoReturn("INSERT INTO people VALUES (?, ?, ?, ?, ?, ?)",
                                 Array({int32_t{1}, "Ada 'Zoë' Lovelace", Variant(born), 1.65,
                                        Variant(Currency{12345678}), true})))
      << db_.ErrDescription();
  ASSERT_TRUE(db_.RunSQLNoReturn("INSERT INTO people (id, name) VALUES (?, ?)",
                                 Array({int16_t{2}, Variant(Null{})})));
  std::shared_ptr<Recordset> rs =
      db_.RunSQLReturnRS("SELECT * FROM people WHERE id = ?", Variant(int32_t{1}));
  ASSERT_TRUE(rs) << db_.ErrDescription();
  ASSERT_FALSE(rs->Eof());
  EXPECT_EQ(rs->FieldCount(), 6);
  EXPECT_EQ(rs->FieldName(1), "name");
  EXPECT_EQ(rs->FieldValue(Variant("ID")), Variant(int32_t{1}));
  EXPECT_EQ(rs->FieldValue(Variant("name")), Variant("Ada 'Zoë' Lovelace"));
  EXPECT_EQ(rs->FieldValue(Variant("born")), Variant(born));
  EXPECT_EQ(rs->FieldValue(Variant("height")), Variant(1.65));
  EXPECT_EQ(rs->FieldValue(Variant("balance")).ToCurrency(), Currency{12345678});
  EXPECT_TRUE(rs->FieldValue(Variant(5)).ToBool());
  rs->MoveNext();
  EXPECT_TRUE(rs->Eof());
  EXPECT_EQ(ReadRows(db_, "SELECT name, born FROM people WHERE id = 2"),
            (std::vector<std::string>{"<null>|<null>"}));
}

TEST_P(SqlDbConnection, RecordsetRaisesForMisuse) {
  ASSERT_TRUE(db_.RunSQLNoReturn("INSERT INTO people (id, name) VALUES (1, 'a')"));
  std::shared_ptr<Recordset> rs = db_.RunSQLReturnRS("SELECT id, name FROM people");
  ASSERT_TRUE(rs);
  auto number = [](const std::function<void()>& call) {
    try {
      call();
    } catch (const Error& e) {
      return e.Number();
    }
    return 0;
  };
  EXPECT_EQ(number([&] { rs->FieldValue(Variant("missing")); }), 3265);
  EXPECT_EQ(number([&] { rs->FieldValue(Variant(2)); }), 3265);
  EXPECT_EQ(number([&] { rs->SetFieldValue(Variant(1), Variant("b")); }), 3251);
  EXPECT_EQ(number([&] { rs->AddNew(); }), 3251);
  rs->MoveNext();
  EXPECT_EQ(number([&] { rs->FieldValue(Variant(0)); }), 3021);
  EXPECT_EQ(number([&] { rs->MoveNext(); }), 3021);
  rs->Close();
  EXPECT_EQ(number([&] { rs->Eof(); }), 3704);
  try {
    rs->FieldCount();
    FAIL() << "a closed recordset answered";
  } catch (const Error& e) {
    EXPECT_EQ(e.Description(), "Operation is not allowed when the object is closed.");
  }
}

TEST_P(SqlDbConnection, OpenTableAddsAndUpdatesRowsThroughBoundParameters) {
  std::shared_ptr<Recordset> rs = db_.OpenTable("people");
  ASSERT_TRUE(rs) << db_.ErrDescription();
  EXPECT_TRUE(rs->Eof());
  ASSERT_TRUE(db_.InsertRecordRS(rs, Array({"id", "name", "height"}), Array({1, "O'Brien", 1.8})))
      << db_.ErrDescription();
  ASSERT_TRUE(
      db_.InsertRecordRS(rs, Array({"id", "name"}, 1), Array({2, "x'); DROP TABLE people; --"}, 1)))
      << db_.ErrDescription();
  EXPECT_EQ(rs->FieldValue(Variant("name")), Variant("x'); DROP TABLE people; --"));
  rs->Close();

  rs = db_.OpenTable("people");
  ASSERT_TRUE(rs) << db_.ErrDescription();
  ASSERT_TRUE(db_.UpdateRecord(rs, Array({"name", "active"}), Array({"Brien", false})))
      << db_.ErrDescription();
  rs->MoveNext();
  rs->SetFieldValue(Variant("height"), Variant(2.0));
  rs->MoveNext();  // writes the pending change first
  EXPECT_TRUE(rs->Eof());
  EXPECT_EQ(ReadRows(db_, "SELECT id, name, height FROM people ORDER BY id"),
            (std::vector<std::string>{"1|Brien|1.8", "2|x'); DROP TABLE people; --|2"}));
}

TEST_P(SqlDbConnection, UpdateOfARowDeletedMeanwhileFails) {
  ASSERT_TRUE(db_.RunSQLNoReturn("INSERT INTO people (id, name) VALUES (1, 'a')"));
  std::shared_ptr<Recordset> rs = db_.OpenTable("people");
  ASSERT_TRUE(rs);
  ASSERT_TRUE(db_.RunSQLNoReturn("DELETE FROM people"));
  EXPECT_FALSE(db_.UpdateRecord(rs, Array({"name"}), Array({"b"})));
  EXPECT_EQ(db_.ErrNumber(), internal::kErrorRowNotFound);
  EXPECT_EQ(db_.ErrDescription(),
            "Row cannot be located for updating. Some values may have been changed since it was "
            "last read.");
  EXPECT_FALSE(db_.UpdateRecord(nullptr, Array({"name"}), Array({"b"})));
  EXPECT_EQ(db_.ErrNumber(), 91);
}

TEST_P(SqlDbConnection, TransactionsCommitAndRollBack) {
  ASSERT_TRUE(db_.BeginTrans()) << db_.ErrDescription();
  ASSERT_TRUE(db_.RunSQLNoReturn("INSERT INTO people (id) VALUES (1)"));
  ASSERT_TRUE(db_.RollbackTrans()) << db_.ErrDescription();
  ASSERT_TRUE(db_.BeginTrans());
  ASSERT_TRUE(db_.RunSQLNoReturn("INSERT INTO people (id) VALUES (2)"));
  ASSERT_TRUE(db_.CommitTrans()) << db_.ErrDescription();
  EXPECT_EQ(ReadRows(db_, "SELECT id FROM people"), (std::vector<std::string>{"2"}));
}

TEST_P(SqlDbConnection, FailuresCarryTheDriverDiagnostics) {
  EXPECT_FALSE(db_.RunSQLNoReturn("SELEKT 1"));
  EXPECT_NE(db_.ErrDescription().find("syntax error"), std::string::npos) << db_.ErrDescription();
  EXPECT_EQ(db_.ErrNumber(),
            Postgres() ? internal::kErrorInCommand : internal::kErrorProviderFailed);
  EXPECT_FALSE(db_.RunSQLNoReturn("INSERT INTO people (id) VALUES (?)", Array({Array({})})));
  EXPECT_EQ(db_.ErrNumber(), 5);
  EXPECT_TRUE(db_.RunSQLNoReturn("SELECT 1"));
  EXPECT_EQ(db_.ErrNumber(), 0);
  EXPECT_EQ(db_.ErrDescription(), "");
}

INSTANTIATE_TEST_SUITE_P(Backends, SqlDbConnection,
                         ::testing::Values(Backend::kSqlite, Backend::kPostgres),
                         [](const auto& info) {
                           return info.param == Backend::kSqlite ? "Sqlite" : "Postgres";
                         });

TEST_P(SqlDbConnection, LongTextAndBytesRoundTripInPieces) {
  std::string text(20000, 'x');
  text += "Zoë";
  std::vector<uint8_t> bytes(10000);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7);
  ASSERT_TRUE(db_.RunSQLNoReturn(Postgres() ? "CREATE TABLE blobs (t TEXT, b BYTEA)"
                                            : "CREATE TABLE blobs (t TEXT, b BLOB)"));
  ASSERT_TRUE(db_.RunSQLNoReturn("INSERT INTO blobs VALUES (?, ?)", Array({text, Variant(bytes)})))
      << db_.ErrDescription();
  std::shared_ptr<Recordset> rs = db_.RunSQLReturnRS("SELECT t, b FROM blobs");
  ASSERT_TRUE(rs && !rs->Eof()) << db_.ErrDescription();
  EXPECT_EQ(rs->FieldValue(Variant(0)), Variant(text));
  EXPECT_EQ(rs->FieldValue(Variant(1)), Variant(bytes));
  db_.RunSQLNoReturn("DROP TABLE blobs");
}

TEST_P(SqlDbConnection, RecordsAffectedCountsTheRowsAStatementChanged) {
  EXPECT_EQ(db_.RecordsAffected(), 0) << "a CREATE TABLE changes no rows";
  ASSERT_TRUE(db_.RunSQLNoReturn("INSERT INTO people (id) VALUES (1), (2), (3)"));
  EXPECT_EQ(db_.RecordsAffected(), 3);
  ASSERT_TRUE(db_.RunSQLNoReturn("UPDATE people SET name = ? WHERE id > ?", Array({"x", 1})));
  EXPECT_EQ(db_.RecordsAffected(), 2);
  ASSERT_TRUE(db_.RunSQLNoReturn("UPDATE people SET name = 'y' WHERE id > 10"));
  EXPECT_EQ(db_.RecordsAffected(), 0);
  ASSERT_NE(db_.RunSQLReturnRS("DELETE FROM people WHERE id = 1"), nullptr);
  EXPECT_EQ(db_.RecordsAffected(), 1);
  EXPECT_FALSE(db_.RunSQLNoReturn("DELETE FROM nowhere"));
  EXPECT_EQ(db_.RecordsAffected(), -1);
}

TEST(SqlDbConnect, UnknownDriverFailsWithTheDriverManagersText) {
  SQLDB db;
  EXPECT_FALSE(db.Connect("Driver=No Such Driver;Database=x"));
  EXPECT_EQ(db.ErrNumber(), internal::kErrorProviderFailed);
  EXPECT_EQ(db.ErrDescription(),
            "[unixODBC][Driver Manager]Can't open lib 'No Such Driver' : file not found "
            "(SQLSTATE 01000, native error 0)");
  EXPECT_FALSE(db.IsConnected());
  EXPECT_FALSE(db.Connect(""));
  EXPECT_EQ(db.ErrNumber(), 3704);
}

TEST(SqlDbConnect, BarePathOpensASqliteDatabase) {
  TempFolder folder;
  SQLDB db;
  std::string path = folder.Path("it's a data base.db");
  ASSERT_TRUE(db.Connect(path)) << db.ErrDescription();
  ASSERT_TRUE(db.RunSQLNoReturn("CREATE TABLE t (a INTEGER)"));
  EXPECT_TRUE(db.Disconnect());
  EXPECT_FALSE(db.IsConnected());
  EXPECT_FALSE(db.RunSQLNoReturn("SELECT 1"));
  EXPECT_EQ(db.ErrNumber(), 3704);
  ASSERT_TRUE(db.Connect("Driver=SQLite3;Database=" + path)) << db.ErrDescription();
  EXPECT_EQ(ReadRows(db, "SELECT COUNT(*) FROM t"), (std::vector<std::string>{"0"}));
}

}  // namespace
}  // namespace pelmora::db
