// `pelmora sql`: one statement on a database, its rows printed.
//
//   pelmora sql CONNECTION "statement" [--csv | --json] [--max-rows N]
//
// CONNECTION is what SQLDB.Connect takes: a SQLite database path, or an ODBC connection string
// ("Driver=PostgreSQL Unicode;Server=...;Database=...;UID=..."). The rows go to standard output
// as an aligned table (default), CSV or JSON; a statement without rows prints the count of rows
// it changed ("3 rows changed", "0 rows changed" for CREATE TABLE and the like), or "OK" when the
// driver cannot tell.
// Exit status: 0 on success, 1 when the connection or the statement fails (the error number and
// description on standard error), 2 for usage errors.
#include <cstdio>
#include <memory>
#include <string>

#include "pelmora/common/error.h"
#include "pelmora/db/sqldb.h"
#include "tools/pelmora/commands.h"
#include "tools/pelmora/sql_output.h"

namespace pelmora_tool {
namespace {

struct SqlOptions {
  std::string connection;
  std::string statement;
  bool csv = false;
  bool json = false;
  size_t max_rows = 1000000;
};

int Failed(const pelmora::db::SQLDB& db) {
  std::fprintf(stderr, "pelmora: sql: error %d: %s\n", db.ErrNumber(), db.ErrDescription().c_str());
  return 1;
}

int RunSql(const SqlOptions& o) {
  pelmora::db::SQLDB db;
  if (!db.Connect(o.connection)) return Failed(db);
  std::shared_ptr<pelmora::db::Recordset> rs = db.RunSQLReturnRS(o.statement);
  if (!rs) return Failed(db);
  try {
    if (rs->FieldCount() == 0) {
      std::string done = ChangedRows(db.RecordsAffected());
      std::fwrite(done.data(), 1, done.size(), stdout);
      return 0;
    }
    ResultTable table = ReadResult(*rs, o.max_rows);
    std::string text = o.json ? FormatJson(table) : o.csv ? FormatCsv(table) : FormatTable(table);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return 0;
  } catch (const pelmora::Error& e) {
    std::fprintf(stderr, "pelmora: sql: error %d: %s\n", e.Number(), e.Description().c_str());
    return 1;
  }
}

}  // namespace

void AddSqlCommand(CLI::App& app, CommandAction& action) {
  auto options = std::make_shared<SqlOptions>();
  CLI::App* sql = app.add_subcommand(
      "sql", "Run one SQL statement and print its rows, or the count of rows it changed");
  sql->add_option("connection", options->connection,
                  "SQLite database path or ODBC connection string")
      ->required();
  sql->add_option("statement", options->statement, "The SQL statement")->required();
  CLI::Option* csv = sql->add_flag("--csv", options->csv, "Print CSV");
  sql->add_flag("--json", options->json, "Print a JSON array of objects")->excludes(csv);
  sql->add_option("--max-rows", options->max_rows, "Print at most this many rows");
  sql->callback([options, &action] { action = [options] { return RunSql(*options); }; });
}

}  // namespace pelmora_tool
