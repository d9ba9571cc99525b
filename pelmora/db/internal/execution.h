// Running one statement with bound parameters, and the texts SQLDB hands to the driver: the
// call escape of a stored procedure and the connection string of a bare database path.
#ifndef PELMORA_DB_INTERNAL_EXECUTION_H_
#define PELMORA_DB_INTERNAL_EXECUTION_H_

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/common/variant.h"
#include "pelmora/db/internal/odbc.h"
#include "pelmora/db/internal/odbc_values.h"

namespace pelmora::db::internal {

// One parameter as the caller gave it.
struct CallParameter {
  SQLSMALLINT io_type = SQL_PARAM_INPUT;
  Variant value;
};

// The parameters of a parameter array: Empty gives none, a value that is not an array one input,
// an array one parameter per element (an element that is itself an array is (name, direction,
// value) with direction 1, 2 or 3). Raises 5 "Invalid procedure call" for another
// direction or an element array of fewer than two items.
std::vector<CallParameter> ReadParameters(const Variant& params);

// An executed statement with the parameters bound to it.
struct Execution {
  OdbcHandle statement;
  std::deque<BoundParameter> parameters;
  std::vector<SQLSMALLINT> io_types;
  // The count of rows the statement changed, -1 when the driver does not know (a SELECT).
  int64_t rows_affected = -1;

  // The values of the output and input/output parameters, in order, from index 0.
  VariantArray Outputs() const;
};

// Executes `sql` on a new statement of `connection` with `parameters` bound in order. Raises the
// driver's diagnostics.
Execution Execute(const OdbcConnection& connection, const std::string& sql,
                  const std::vector<CallParameter>& parameters);

// Executes `sql` with input `parameters` on the connection's reusable statement and drops any
// result; returns the count of rows it changed (-1 when the driver does not know). Raises the
// driver's diagnostics.
int64_t ExecuteDroppingResults(OdbcConnection& connection, const std::string& sql,
                               const std::vector<CallParameter>& parameters);

// "{call name(?,?)}" for `count` parameters, "{? = call name(?)}" with a return value (the
// return value's marker not counted). Raises 5 when `name` holds anything but letters, digits,
// "_", "." and "$", or is empty.
std::string CallEscape(std::string_view name, size_t count, bool with_return);

// The connection string for what a caller passed: a text without "=" is a SQLite database path
// ("Driver=SQLite3;Database=<path>"; the driver reads the path up to a ";", so such paths cannot
// be named), anything else is returned unchanged.
std::string NormalizeConnectionString(std::string_view text);

}  // namespace pelmora::db::internal

#endif  // PELMORA_DB_INTERNAL_EXECUTION_H_
