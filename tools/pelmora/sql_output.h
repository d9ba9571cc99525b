// The result rows of `pelmora sql` and their three printed forms: an aligned table, CSV and
// JSON.
#ifndef TOOLS_PELMORA_SQL_OUTPUT_H_
#define TOOLS_PELMORA_SQL_OUTPUT_H_

#include <cstddef>
#include <string>
#include <vector>

#include "pelmora/common/variant.h"
#include "pelmora/db/recordset.h"

namespace pelmora_tool {

// Column names and the rows of a result, values as the recordset gave them.
struct ResultTable {
  std::vector<std::string> columns;
  std::vector<std::vector<pelmora::Variant>> rows;
};

// Reads every row of `recordset` (at most `max_rows`). Raises what the recordset raises.
ResultTable ReadResult(pelmora::db::Recordset& recordset, size_t max_rows);

// The text of one value: "NULL" for Null and Empty (CSV: empty), dates as
// "yyyy-mm-dd hh:nn:ss", byte arrays as "0x" and hexadecimal digits, other values as text.
std::string ValueText(const pelmora::Variant& value, bool csv = false);

// Columns separated by " | ", each as wide as its widest value (in characters), a rule of "-"
// and "+" under the names, numbers right-aligned; ends with "(N rows)" (or "(1 row)").
std::string FormatTable(const ResultTable& table);

// RFC 4180 CSV with a header line; fields quoted when they hold a comma, quote or line break.
std::string FormatCsv(const ResultTable& table);

// A JSON array of one object per row (keys in column order); numbers and Booleans as JSON
// numbers and Booleans, Null as null, everything else as strings.
std::string FormatJson(const ResultTable& table);

// What a statement without rows prints: "1 row changed\n", "N rows changed\n", or "OK\n" for a
// count the driver cannot tell (negative).
std::string ChangedRows(int32_t count);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_SQL_OUTPUT_H_
