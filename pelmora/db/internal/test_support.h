// Helpers of the database tests: reading result rows back as text.
#ifndef PELMORA_DB_INTERNAL_TEST_SUPPORT_H_
#define PELMORA_DB_INTERNAL_TEST_SUPPORT_H_

#include <memory>
#include <string>
#include <vector>

#include "pelmora/db/sqldb.h"

namespace pelmora::db::internal {

// Every row of `sql`'s result, fields joined by "|", Null written "<null>"; a failed statement
// gives one line "error N: description". Reads at most 10000 rows.
inline std::vector<std::string> ReadRows(SQLDB& db, const std::string& sql) {
  std::shared_ptr<Recordset> rs = db.RunSQLReturnRS(sql);
  if (!rs) return {"error " + std::to_string(db.ErrNumber()) + ": " + db.ErrDescription()};
  std::vector<std::string> rows;
  for (int n = 0; n < 10000 && !rs->Eof(); ++n, rs->MoveNext()) {
    std::string row;
    for (int32_t i = 0; i < rs->FieldCount(); ++i) {
      Variant value = rs->FieldValue(Variant(i));
      row += (i == 0 ? "" : "|") + (value.IsNull() ? std::string("<null>") : value.ToString());
    }
    rows.push_back(row);
  }
  return rows;
}

}  // namespace pelmora::db::internal

#endif  // PELMORA_DB_INTERNAL_TEST_SUPPORT_H_
