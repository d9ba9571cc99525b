// `pelmora sql` as a process against the real PostgreSQL fixture: what a statement without rows
// prints.
#include <gtest/gtest.h>

#include <string>

#include "pelmora/testing/postgres_server.h"
#include "tests/cli/child_process.h"

namespace pelmora_cli_test {
namespace {

constexpr std::chrono::seconds kLimit(60);

TEST(CliSql, StatementsWithoutRowsPrintTheRowsTheyChanged) {
  pelmora::testing::PostgresServer* server = pelmora::testing::PostgresServer::Shared();
  ASSERT_TRUE(server->Running()) << server->Failure();
  auto sql = [&](const std::string& statement) {
    return ChildProcess({"sql", server->ConnectionString(), statement}).Finish(kLimit);
  };
  // The server lives for the whole test program: start from no table (the driver cannot tell a
  // count when there was none to drop).
  ASSERT_EQ(sql("DROP TABLE IF EXISTS cli_changes").status, 0);
  struct Case {
    const char* statement;
    const char* printed;
  } cases[] = {
      {"CREATE TABLE cli_changes (id INTEGER PRIMARY KEY)", "0 rows changed\n"},
      {"INSERT INTO cli_changes VALUES (1), (2), (3)", "3 rows changed\n"},
      {"UPDATE cli_changes SET id = 10 WHERE id = 1", "1 row changed\n"},
      {"DELETE FROM cli_changes WHERE id > 100", "0 rows changed\n"},
  };
  for (const Case& c : cases) {
    ChildProcess::Result result = sql(c.statement);
    EXPECT_EQ(result.status, 0) << c.statement << ": " << result.err;
    EXPECT_EQ(result.out, c.printed) << c.statement;
  }
  ChildProcess::Result rows = sql("SELECT count(*) AS n FROM cli_changes");
  EXPECT_EQ(rows.status, 0) << rows.err;
  EXPECT_NE(rows.out.find("3"), std::string::npos) << rows.out;
  EXPECT_EQ(rows.out.find("changed"), std::string::npos) << rows.out;
}

}  // namespace
}  // namespace pelmora_cli_test
