// Values crossing ODBC: Variants bound as statement parameters (input and output), and result
// columns read back as Variants.
//
// Parameter types by Variant type: Integer SMALLINT, Long INTEGER, Byte TINYINT, Single REAL,
// Double DOUBLE, Currency DECIMAL(19,4), Boolean BIT, Date TIMESTAMP, String VARCHAR (UTF-8),
// Byte() VARBINARY; Empty and Null are NULL. Columns: exact integers as Integer (SMALLINT,
// TINYINT) or Long (Double beyond its range), REAL as Single, FLOAT and DOUBLE as Double, DECIMAL
// and NUMERIC with up to four decimals as Currency (others Double), BIT as Boolean, dates and
// times as Date, binary as Byte(), everything else as String; SQL NULL as Null.
#ifndef PELMORA_DB_INTERNAL_ODBC_VALUES_H_
#define PELMORA_DB_INTERNAL_ODBC_VALUES_H_

#include <sql.h>
#include <sqlext.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "pelmora/common/variant.h"
#include "pelmora/db/internal/odbc.h"

namespace pelmora::db::internal {

// One bound parameter and the buffer the driver reads from and writes to. Bound parameters must
// stay where they are from Bind until the statement has executed (keep them in a deque).
class BoundParameter {
 public:
  // A parameter carrying `value`, of the type the value's type gives. `io_type` is
  // SQL_PARAM_INPUT, SQL_PARAM_OUTPUT or SQL_PARAM_INPUT_OUTPUT; an output parameter whose value
  // is Empty or Null is text. Raises 13 "Type mismatch" for arrays and objects.
  BoundParameter(const Variant& value, SQLSMALLINT io_type);

  // Binds this parameter as parameter `number` (from 1) of `statement`. Raises the driver's
  // diagnostics.
  void Bind(const OdbcHandle& statement, SQLUSMALLINT number);

  // The value now in the buffer (an output parameter's value after execution); Null for NULL.
  Variant Value() const;

 private:
  void SetText(const std::string& text, size_t capacity);
  template <class T>
  void SetFixed(const T& value, SQLSMALLINT c_type, SQLSMALLINT sql_type, SQLULEN size);

  VariantType kind_ = VariantType::kEmpty;
  SQLSMALLINT io_type_ = SQL_PARAM_INPUT;
  SQLSMALLINT c_type_ = SQL_C_CHAR;
  SQLSMALLINT sql_type_ = SQL_VARCHAR;
  SQLULEN column_size_ = 1;
  SQLSMALLINT decimal_digits_ = 0;
  std::vector<char> buffer_;
  SQLLEN indicator_ = 0;
};

// Binds every value of `values` in order (input parameters) and keeps them in `parameters`.
void BindInputs(const OdbcHandle& statement, const std::vector<Variant>& values,
                std::deque<BoundParameter>& parameters);

// What a result column is.
struct ColumnInfo {
  std::string name;
  SQLSMALLINT sql_type = SQL_VARCHAR;
  SQLULEN size = 0;
  SQLSMALLINT scale = 0;
};

// The columns of the statement's current result set (none when it has none).
std::vector<ColumnInfo> DescribeColumns(const OdbcHandle& statement);

// The value of column `number` (from 1) of the current row, read with SQLGetData; each column
// can be read once per row. Raises the driver's diagnostics.
Variant ReadColumn(const OdbcHandle& statement, SQLUSMALLINT number, const ColumnInfo& column);

}  // namespace pelmora::db::internal

#endif  // PELMORA_DB_INTERNAL_ODBC_VALUES_H_
