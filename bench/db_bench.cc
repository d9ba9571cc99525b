// SQLDB.InsertRecordSQL next to the same INSERT statements executed directly through ODBC, in
// one run: 100 000 rows into an embedded SQLite database inside one transaction each.
//
//   pelmora_bench --benchmark_filter='Insert'
#include <sql.h>
#include <sqlext.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "pelmora/db/sql_text.h"
#include "pelmora/db/sqldb.h"

namespace {

using pelmora::Variant;
using pelmora::VariantArray;

constexpr int kRows = 100000;

void Check(bool ok) {
  if (!ok) std::abort();
}

// A fresh database file in a folder of its own, removed afterwards.
struct BenchDatabase {
  std::string folder;
  std::string path;
  BenchDatabase() {
    folder = (std::filesystem::temp_directory_path() / "pelmora-bench-XXXXXX").string();
    Check(mkdtemp(folder.data()) != nullptr);
    path = folder + "/bench.db";
  }
  ~BenchDatabase() { std::filesystem::remove_all(folder); }
};

const char* const kCreate = "CREATE TABLE bench (id INTEGER, name TEXT, score DOUBLE)";

VariantArray Fields() { return VariantArray{0, {Variant("id"), Variant("name"), Variant("score")}}; }

VariantArray Values(int i) {
  return VariantArray{0, {Variant(int32_t{i}), Variant("name " + std::to_string(i)),
                          Variant(i * 1.5)}};
}

void BM_SqlDbInsertRecordSql(benchmark::State& state) {
  BenchDatabase database;
  pelmora::db::SQLDB db;
  Check(db.Connect(database.path) && db.RunSQLNoReturn(kCreate) && db.BeginTrans());
  Variant fields(Fields());
  // The callers' values exist before the calls, as the direct peer's statement texts do.
  std::vector<Variant> values;
  for (int i = 0; i < kRows; ++i) values.emplace_back(Values(i));
  size_t i = 0;
  for (auto _ : state) {
    Check(db.InsertRecordSQL("bench", fields, values[i++ % values.size()]));
  }
  Check(db.CommitTrans());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SqlDbInsertRecordSql)->Iterations(kRows)->Unit(benchmark::kMillisecond);

// The same statement texts through SQLExecDirect on one reused statement handle.
void BM_OdbcDirectInsert(benchmark::State& state) {
  BenchDatabase database;
  std::vector<std::string> statements;
  for (int i = 0; i < kRows; ++i) {
    statements.push_back(pelmora::db::BuildInsertStatement("bench", Fields(), Values(i), false));
  }
  SQLHENV env = nullptr;
  SQLHDBC dbc = nullptr;
  SQLHSTMT stmt = nullptr;
  Check(SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &env)));
  Check(SQL_SUCCEEDED(SQLSetEnvAttr(env, SQL_ATTR_ODBC_VERSION,
                                    reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0)));
  Check(SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_DBC, env, &dbc)));
  std::string connect = "Driver=SQLite3;Database=" + database.path;
  Check(SQL_SUCCEEDED(SQLDriverConnect(dbc, nullptr, reinterpret_cast<SQLCHAR*>(connect.data()),
                                       SQL_NTS, nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT)));
  Check(SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_STMT, dbc, &stmt)));
  Check(SQL_SUCCEEDED(SQLExecDirect(stmt, (SQLCHAR*)kCreate, SQL_NTS)));
  Check(SQL_SUCCEEDED(SQLSetConnectAttr(dbc, SQL_ATTR_AUTOCOMMIT,
                                        reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_OFF), 0)));
  size_t i = 0;
  for (auto _ : state) {
    std::string& sql = statements[i++ % statements.size()];
    Check(SQL_SUCCEEDED(SQLExecDirect(stmt, reinterpret_cast<SQLCHAR*>(sql.data()),
                                      static_cast<SQLINTEGER>(sql.size()))));
    SQLFreeStmt(stmt, SQL_CLOSE);
  }
  Check(SQL_SUCCEEDED(SQLEndTran(SQL_HANDLE_DBC, dbc, SQL_COMMIT)));
  state.SetItemsProcessed(state.iterations());
  SQLFreeHandle(SQL_HANDLE_STMT, stmt);
  SQLDisconnect(dbc);
  SQLFreeHandle(SQL_HANDLE_DBC, dbc);
  SQLFreeHandle(SQL_HANDLE_ENV, env);
}
BENCHMARK(BM_OdbcDirectInsert)->Iterations(kRows)->Unit(benchmark::kMillisecond);

}  // namespace
