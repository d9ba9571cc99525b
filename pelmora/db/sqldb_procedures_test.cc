// Stored procedures (PostgreSQL functions) through the ODBC call escape, and a server
// connection that drops under an open SQLDB.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "pelmora/db/internal/odbc.h"
#include "pelmora/db/internal/test_support.h"
#include "pelmora/db/sqldb.h"
#include "pelmora/testing/postgres_server.h"

namespace pelmora::db {
namespace {

using internal::ReadRows;
using testing::PostgresServer;

Variant Array(std::vector<Variant> items, int32_t lower_bound = 0) {
  return Variant(VariantArray{lower_bound, std::move(items)});
}

class SqlDbProcedures : public ::testing::Test {
 protected:
  void SetUp() override {
    PostgresServer* server = PostgresServer::Shared();
    ASSERT_TRUE(server->Running()) << server->Failure();
    ASSERT_TRUE(db_.Connect(server->ConnectionString())) << db_.ErrDescription();
    const char* statements[] = {
        "CREATE OR REPLACE FUNCTION add_one(a integer) RETURNS integer AS "
        "'SELECT a + 1' LANGUAGE sql",
        "CREATE OR REPLACE FUNCTION split_name(full_name text, OUT first text, OUT last text) "
        "AS $$ SELECT split_part(full_name, ' ', 1), split_part(full_name, ' ', 2) $$ "
        "LANGUAGE sql",
        "CREATE OR REPLACE FUNCTION numbers(n integer) RETURNS TABLE(i integer, square integer) "
        "AS 'SELECT g, g * g FROM generate_series(1, n) g' LANGUAGE sql",
        "DROP TABLE IF EXISTS calls",
        "CREATE TABLE calls (note text)",
        "CREATE OR REPLACE FUNCTION note_call(t text) RETURNS void AS "
        "'INSERT INTO calls VALUES (t)' LANGUAGE sql",
    };
    for (const char* sql : statements) ASSERT_TRUE(db_.RunSQLNoReturn(sql)) << db_.ErrDescription();
  }

  SQLDB db_;
};

TEST_F(SqlDbProcedures, ReturnIntegerReadsTheReturnValue) {
  EXPECT_EQ(db_.RunSPReturnInteger("add_one", Array({41})), 42) << db_.ErrDescription();
  EXPECT_EQ(db_.RunSPReturnInteger("public.add_one", Variant(-1)), 0);
  EXPECT_EQ(db_.ErrNumber(), 0) << db_.ErrDescription();
}

TEST_F(SqlDbProcedures, ReturnParamsReadsOutputParameters) {
  VariantArray outputs = db_.RunSPReturnParams(
      "split_name", Array({"Ada Lovelace", Array({"first", 2, ""}), Array({"last", 2, ""})}));
  EXPECT_EQ(db_.ErrDescription(), "");
  EXPECT_EQ(outputs.lower_bound, 0);
  EXPECT_EQ(outputs.items, (std::vector<Variant>{Variant("Ada"), Variant("Lovelace")}));
}

TEST_F(SqlDbProcedures, ReturnRsReadsTheProceduresRows) {
  std::shared_ptr<Recordset> rs = db_.RunSPReturnRS("numbers", Array({3}));
  ASSERT_TRUE(rs) << db_.ErrDescription();
  std::vector<std::string> rows;
  for (int n = 0; n < 10 && !rs->Eof(); ++n, rs->MoveNext()) {
    rows.push_back(rs->FieldValue(Variant("i")).ToString() + "^2=" +
                   rs->FieldValue(Variant("square")).ToString());
  }
  EXPECT_EQ(rows, (std::vector<std::string>{"1^2=1", "2^2=4", "3^2=9"}));
}

TEST_F(SqlDbProcedures, NoReturnRunsTheProcedure) {
  ASSERT_TRUE(db_.RunSPNoReturn("note_call", Array({"it's done"}))) << db_.ErrDescription();
  EXPECT_EQ(ReadRows(db_, "SELECT note FROM calls"), (std::vector<std::string>{"it's done"}));
}

TEST_F(SqlDbProcedures, BadNamesAndMissingProceduresFail) {
  EXPECT_FALSE(db_.RunSPNoReturn("note_call(1); DROP TABLE calls; --"));
  EXPECT_EQ(db_.ErrNumber(), 5);
  EXPECT_EQ(db_.ErrDescription(), "Invalid procedure call");
  EXPECT_EQ(db_.RunSPReturnInteger("no_such_function", Array({1})), 0);
  EXPECT_EQ(db_.ErrNumber(), internal::kErrorInCommand);
  EXPECT_NE(db_.ErrDescription().find("SQLSTATE 42883"), std::string::npos) << db_.ErrDescription();
  EXPECT_TRUE(db_.RunSPReturnParams("split_name", Array({"x", Array({"o", 9, ""})})).items.empty());
  EXPECT_EQ(db_.ErrNumber(), 5);
}

TEST_F(SqlDbProcedures, DroppedServerConnectionGivesAClearError) {
  std::vector<std::string> pid = ReadRows(db_, "SELECT pg_backend_pid()");
  ASSERT_EQ(pid.size(), 1u);
  SQLDB killer;
  ASSERT_TRUE(killer.Connect(PostgresServer::Shared()->ConnectionString()));
  ASSERT_EQ(ReadRows(killer, "SELECT pg_terminate_backend(" + pid[0] + ")"),
            (std::vector<std::string>{"True"}));
  EXPECT_FALSE(db_.RunSQLNoReturn("SELECT 1"));
  EXPECT_EQ(db_.ErrNumber(), internal::kErrorProviderFailed);
  EXPECT_EQ(db_.ErrDescription(),
            "FATAL: terminating connection due to administrator command;\n"
            "The connection has been lost (SQLSTATE 57P01, native error 35)");
  EXPECT_TRUE(db_.Connect(PostgresServer::Shared()->ConnectionString())) << db_.ErrDescription();
  EXPECT_EQ(db_.RunSPReturnInteger("add_one", Array({1})), 2);
}

TEST(SqlDbProceduresSqlite, CallsFailOnSqliteWhichHasNoProcedures) {
  testing::TempFolder folder;
  SQLDB db;
  ASSERT_TRUE(db.Connect(folder.Path("data.db")));
  EXPECT_FALSE(db.RunSPNoReturn("anything", Array({1})));
  EXPECT_NE(db.ErrDescription().find("SQLSTATE"), std::string::npos) << db.ErrDescription();
  EXPECT_EQ(db.RunSPReturnInteger("anything"), 0);
  EXPECT_NE(db.ErrNumber(), 0);
}

}  // namespace
}  // namespace pelmora::db
