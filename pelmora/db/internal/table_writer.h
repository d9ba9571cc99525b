// Writing one row of a table through parameterised INSERT and UPDATE statements: the engine
// under an updatable recordset's AddNew and Update.
#ifndef PELMORA_DB_INTERNAL_TABLE_WRITER_H_
#define PELMORA_DB_INTERNAL_TABLE_WRITER_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/common/variant.h"
#include "pelmora/db/internal/odbc.h"

namespace pelmora::db::internal {

// `name` quoted with `quote` (doubled inside); a dotted name is quoted part by part.
std::string QuoteIdentifier(std::string_view name, char quote);

// One table's columns and key, for writing rows of it.
class TableWriter {
 public:
  // A writer for `table` whose columns are `columns` (in result order). The key is the table's
  // primary key as the driver reports it, or every column when it reports none. Raises the
  // driver's diagnostics.
  TableWriter(const OdbcConnection& connection, std::string_view table,
              std::vector<std::string> columns);

  // Inserts a row with the assigned values (columns left unassigned get their defaults).
  // Raises the driver's diagnostics.
  void Insert(const OdbcConnection& connection,
              const std::vector<std::optional<Variant>>& assigned) const;

  // Changes the assigned columns of the row whose key columns hold `original`'s values. Raises
  // -2147217864 (row cannot be located) when no row matched, or the driver's diagnostics.
  void Update(const OdbcConnection& connection, const std::vector<Variant>& original,
              const std::vector<std::optional<Variant>>& assigned) const;

 private:
  std::vector<size_t> FindKey(const OdbcConnection& connection, std::string_view table) const;

  std::string table_;                   // quoted
  std::vector<std::string> columns_;    // as the driver names them
  std::vector<std::string> quoted_;     // quoted
  std::vector<size_t> key_;             // indexes into columns_
};

// Executes `sql` with `values` bound as input parameters on a new statement of `connection`,
// and returns the number of rows it changed (-1 when the driver does not say). Raises the
// driver's diagnostics.
SQLLEN ExecuteWithValues(const OdbcConnection& connection, const std::string& sql,
                         const std::vector<Variant>& values);

}  // namespace pelmora::db::internal

#endif  // PELMORA_DB_INTERNAL_TABLE_WRITER_H_
