#include "pelmora/db/internal/table_writer.h"

#include <strings.h>

#include <array>
#include <deque>
#include <string>
#include <utility>

#include "pelmora/common/codepage.h"
#include "pelmora/db/internal/odbc_values.h"

namespace pelmora::db::internal {
namespace {

// A primary key has few columns; the walk stops here whatever the driver returns.
constexpr int kMaxKeyRows = 64;

std::string QuoteOne(std::string_view part, char quote) {
  std::string out(1, quote);
  for (char c : part) {
    out += c;
    if (c == quote) out += c;
  }
  return out + quote;
}

// Joins "prefix<item><separator>..." over the items `pick` selects.
template <class Pick>
std::string JoinColumns(size_t count, std::string_view separator, Pick pick) {
  std::string out;
  for (size_t i = 0; i < count; ++i) {
    std::string item = pick(i);
    if (item.empty()) continue;
    if (!out.empty()) out += separator;
    out += item;
  }
  return out;
}

}  // namespace

std::string QuoteIdentifier(std::string_view name, char quote) {
  std::string out;
  size_t start = 0;
  while (true) {
    size_t dot = name.find('.', start);
    out += QuoteOne(name.substr(start, dot == std::string_view::npos ? dot : dot - start), quote);
    if (dot == std::string_view::npos) return out;
    out += '.';
    start = dot + 1;
  }
}

TableWriter::TableWriter(const OdbcConnection& connection, std::string_view table,
                         std::vector<std::string> columns)
    : table_(QuoteIdentifier(table, connection.IdentifierQuote())), columns_(std::move(columns)) {
  for (const std::string& column : columns_) {
    quoted_.push_back(QuoteIdentifier(column, connection.IdentifierQuote()));
  }
  key_ = FindKey(connection, table);
}

std::vector<size_t> TableWriter::FindKey(const OdbcConnection& connection,
                                         std::string_view table) const {
  std::string schema;
  std::string name(table);
  if (size_t dot = name.rfind('.'); dot != std::string::npos) {
    schema = name.substr(0, dot);
    name.erase(0, dot + 1);
  }
  OdbcHandle statement = connection.NewStatement();
  Check(SQLPrimaryKeys(statement.Get(), nullptr, 0,
                       schema.empty() ? nullptr : reinterpret_cast<SQLCHAR*>(schema.data()),
                       static_cast<SQLSMALLINT>(schema.size()),
                       reinterpret_cast<SQLCHAR*>(name.data()),
                       static_cast<SQLSMALLINT>(name.size())),
        statement);
  std::vector<size_t> key;
  for (int row = 0; row < kMaxKeyRows; ++row) {
    if (Check(SQLFetch(statement.Get()), statement, true) == SQL_NO_DATA) break;
    Variant column = ReadColumn(statement, 4, ColumnInfo{});  // COLUMN_NAME
    if (column.IsNull()) continue;
    for (size_t i = 0; i < columns_.size(); ++i) {
      if (EqualsFolded(columns_[i], column.ToString())) key.push_back(i);
    }
  }
  if (key.empty()) {
    for (size_t i = 0; i < columns_.size(); ++i) key.push_back(i);
  }
  return key;
}

void TableWriter::Insert(const OdbcConnection& connection,
                         const std::vector<std::optional<Variant>>& assigned) const {
  std::vector<Variant> values;
  std::string names = JoinColumns(columns_.size(), ",", [&](size_t i) {
    if (i >= assigned.size() || !assigned[i]) return std::string();
    values.push_back(*assigned[i]);
    return quoted_[i];
  });
  std::string sql = "INSERT INTO " + table_;
  if (values.empty()) {
    sql += " DEFAULT VALUES";
  } else {
    std::string markers = JoinColumns(values.size(), ",", [](size_t) { return std::string("?"); });
    sql += " (" + names + ") VALUES (" + markers + ")";
  }
  ExecuteWithValues(connection, sql, values);
}

void TableWriter::Update(const OdbcConnection& connection, const std::vector<Variant>& original,
                         const std::vector<std::optional<Variant>>& assigned) const {
  std::vector<Variant> values;
  std::string set_list = JoinColumns(columns_.size(), ",", [&](size_t i) {
    if (i >= assigned.size() || !assigned[i]) return std::string();
    values.push_back(*assigned[i]);
    return quoted_[i] + "=?";
  });
  if (values.empty()) return;
  std::string conditions = JoinColumns(key_.size(), " AND ", [&](size_t k) {
    size_t i = key_[k];
    if (original[i].IsNull()) return quoted_[i] + " IS NULL";
    values.push_back(original[i]);
    return quoted_[i] + "=?";
  });
  std::string sql = "UPDATE " + table_ + " SET " + set_list + " WHERE " + conditions;
  if (ExecuteWithValues(connection, sql, values) == 0) throw ObjectError(kErrorRowNotFound);
}

SQLLEN ExecuteWithValues(const OdbcConnection& connection, const std::string& sql,
                         const std::vector<Variant>& values) {
  OdbcHandle statement = connection.NewStatement();
  std::deque<BoundParameter> parameters;
  BindInputs(statement, values, parameters);
  std::string text = sql;
  Check(SQLExecDirect(statement.Get(), reinterpret_cast<SQLCHAR*>(text.data()),
                      static_cast<SQLINTEGER>(text.size())),
        statement, true);
  SQLLEN rows = -1;
  Check(SQLRowCount(statement.Get(), &rows), statement);
  return rows;
}

}  // namespace pelmora::db::internal
