#include "pelmora/db/internal/odbc_values.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "pelmora/common/error.h"

namespace pelmora::db::internal {
namespace {

// Output text parameters get at least this many bytes.
constexpr size_t kOutputTextCapacity = 8000;
// Longer texts and byte strings are sent as long data types.
constexpr size_t kLongDataThreshold = 8000;
// A chunked read stops after this many pieces whatever the driver says.
constexpr int kMaxChunks = 1 << 16;
constexpr size_t kChunkSize = 8192;

SQL_TIMESTAMP_STRUCT ToTimestamp(Date date) {
  CivilTime c = date.ToCivil();
  SQL_TIMESTAMP_STRUCT ts{};
  ts.year = static_cast<SQLSMALLINT>(c.year);
  ts.month = static_cast<SQLUSMALLINT>(c.month);
  ts.day = static_cast<SQLUSMALLINT>(c.day);
  ts.hour = static_cast<SQLUSMALLINT>(c.hour);
  ts.minute = static_cast<SQLUSMALLINT>(c.minute);
  ts.second = static_cast<SQLUSMALLINT>(c.second);
  return ts;
}

Date FromTimestamp(const SQL_TIMESTAMP_STRUCT& ts) {
  std::optional<Date> date = Date::FromCivil({ts.year, ts.month, ts.day, ts.hour, ts.minute,
                                              ts.second});
  if (!date) throw RuntimeError(6, "SQLDB");
  return *date;
}

template <class T>
T ReadFixed(const std::vector<char>& buffer) {
  T value{};
  std::memcpy(&value, buffer.data(), std::min(sizeof value, buffer.size()));
  return value;
}

}  // namespace

BoundParameter::BoundParameter(const Variant& value, SQLSMALLINT io_type)
    : kind_(value.Type()), io_type_(io_type) {
  switch (kind_) {
    case VariantType::kInteger: SetFixed(value.ToInteger(), SQL_C_SSHORT, SQL_SMALLINT, 5); break;
    case VariantType::kLong: SetFixed(value.ToLong(), SQL_C_SLONG, SQL_INTEGER, 10); break;
    case VariantType::kByte: SetFixed(value.ToByte(), SQL_C_UTINYINT, SQL_TINYINT, 3); break;
    case VariantType::kSingle: SetFixed(value.ToSingle(), SQL_C_FLOAT, SQL_REAL, 7); break;
    case VariantType::kDouble: SetFixed(value.ToDouble(), SQL_C_DOUBLE, SQL_DOUBLE, 15); break;
    case VariantType::kBoolean:
      SetFixed(static_cast<unsigned char>(value.ToBool() ? 1 : 0), SQL_C_BIT, SQL_BIT, 1);
      break;
    case VariantType::kDate:
      SetFixed(ToTimestamp(*value.Get<Date>()), SQL_C_TYPE_TIMESTAMP, SQL_TYPE_TIMESTAMP, 19);
      break;
    case VariantType::kCurrency:
      SetText(value.ToString(), 32);
      sql_type_ = SQL_DECIMAL;
      column_size_ = 19;
      decimal_digits_ = 4;
      break;
    case VariantType::kByteArray: {
      const auto& bytes = *value.Get<std::vector<uint8_t>>();
      SetText(std::string(bytes.begin(), bytes.end()), 0);
      c_type_ = SQL_C_BINARY;
      sql_type_ = bytes.size() > kLongDataThreshold ? SQL_LONGVARBINARY : SQL_VARBINARY;
      break;
    }
    case VariantType::kEmpty:
    case VariantType::kNull:
      SetText("", io_type == SQL_PARAM_INPUT ? 0 : kOutputTextCapacity);
      indicator_ = SQL_NULL_DATA;
      break;
    default:
      SetText(value.ToString(), 0);  // arrays and objects raise 13 here
  }
}

void BoundParameter::SetText(const std::string& text, size_t capacity) {
  if (io_type_ != SQL_PARAM_INPUT) capacity = std::max(capacity, kOutputTextCapacity);
  buffer_.assign(std::max(text.size() + 1, capacity), '\0');
  std::copy(text.begin(), text.end(), buffer_.begin());
  indicator_ = static_cast<SQLLEN>(text.size());
  c_type_ = SQL_C_CHAR;
  sql_type_ = text.size() > kLongDataThreshold ? SQL_LONGVARCHAR : SQL_VARCHAR;
  column_size_ = std::max<SQLULEN>(1, std::max(text.size(), capacity));
}

template <class T>
void BoundParameter::SetFixed(const T& value, SQLSMALLINT c_type, SQLSMALLINT sql_type,
                              SQLULEN size) {
  buffer_.assign(sizeof value, '\0');
  std::memcpy(buffer_.data(), &value, sizeof value);
  indicator_ = sizeof value;
  c_type_ = c_type;
  sql_type_ = sql_type;
  column_size_ = size;
}

void BoundParameter::Bind(const OdbcHandle& statement, SQLUSMALLINT number) {
  if (io_type_ == SQL_PARAM_INPUT && indicator_ == SQL_NULL_DATA) buffer_.assign(1, '\0');
  Check(SQLBindParameter(statement.Get(), number, io_type_, c_type_, sql_type_, column_size_,
                         decimal_digits_, buffer_.data(), static_cast<SQLLEN>(buffer_.size()),
                         &indicator_),
        statement);
}

Variant BoundParameter::Value() const {
  if (indicator_ == SQL_NULL_DATA) return Variant(Null{});
  switch (c_type_) {
    case SQL_C_SSHORT: return Variant(ReadFixed<int16_t>(buffer_));
    case SQL_C_SLONG: return Variant(ReadFixed<int32_t>(buffer_));
    case SQL_C_UTINYINT: return Variant(ReadFixed<uint8_t>(buffer_));
    case SQL_C_FLOAT: return Variant(ReadFixed<float>(buffer_));
    case SQL_C_DOUBLE: return Variant(ReadFixed<double>(buffer_));
    case SQL_C_BIT: return Variant(ReadFixed<unsigned char>(buffer_) != 0);
    case SQL_C_TYPE_TIMESTAMP: return Variant(FromTimestamp(ReadFixed<SQL_TIMESTAMP_STRUCT>(buffer_)));
    default: break;
  }
  size_t length = std::min(buffer_.size(), static_cast<size_t>(std::max<SQLLEN>(indicator_, 0)));
  if (c_type_ == SQL_C_BINARY) return Variant(std::vector<uint8_t>(buffer_.begin(), buffer_.begin() + length));
  // Text buffers keep a terminating zero: the driver never fills the last byte.
  length = std::min(length, buffer_.size() - 1);
  std::string text(buffer_.data(), length);
  if (kind_ == VariantType::kCurrency) return Variant(text).ToCurrency();
  return Variant(std::move(text));
}

void BindInputs(const OdbcHandle& statement, const std::vector<Variant>& values,
                std::deque<BoundParameter>& parameters) {
  for (const Variant& value : values) {
    parameters.emplace_back(value, SQL_PARAM_INPUT);
    parameters.back().Bind(statement, static_cast<SQLUSMALLINT>(parameters.size()));
  }
}

std::vector<ColumnInfo> DescribeColumns(const OdbcHandle& statement) {
  SQLSMALLINT count = 0;
  Check(SQLNumResultCols(statement.Get(), &count), statement);
  std::vector<ColumnInfo> columns(std::max<SQLSMALLINT>(count, 0));
  for (SQLUSMALLINT i = 1; i <= columns.size(); ++i) {
    std::array<SQLCHAR, 256> name{};
    SQLSMALLINT name_length = 0;
    SQLSMALLINT nullable = 0;
    ColumnInfo& column = columns[i - 1];
    Check(SQLDescribeCol(statement.Get(), i, name.data(), name.size(), &name_length,
                         &column.sql_type, &column.size, &column.scale, &nullable),
          statement);
    column.name = reinterpret_cast<const char*>(name.data());
  }
  return columns;
}

namespace {

template <class T>
std::optional<T> GetFixed(const OdbcHandle& statement, SQLUSMALLINT number, SQLSMALLINT c_type) {
  T value{};
  SQLLEN indicator = 0;
  Check(SQLGetData(statement.Get(), number, c_type, &value, sizeof value, &indicator), statement);
  if (indicator == SQL_NULL_DATA) return std::nullopt;
  return value;
}

// Text (SQL_C_CHAR) or bytes (SQL_C_BINARY) of any length, read in chunks.
std::optional<std::string> GetLong(const OdbcHandle& statement, SQLUSMALLINT number,
                                   SQLSMALLINT c_type) {
  std::string data;
  std::vector<char> chunk(kChunkSize);
  // A character chunk ends with a zero the driver adds; a binary chunk is all data.
  const size_t usable = c_type == SQL_C_CHAR ? chunk.size() - 1 : chunk.size();
  for (int i = 0; i < kMaxChunks; ++i) {
    SQLLEN indicator = 0;
    SQLRETURN rc = Check(SQLGetData(statement.Get(), number, c_type, chunk.data(),
                                    static_cast<SQLLEN>(chunk.size()), &indicator),
                         statement, i > 0);
    if (rc == SQL_NO_DATA) break;
    if (indicator == SQL_NULL_DATA) return std::nullopt;
    bool whole = indicator != SQL_NO_TOTAL && static_cast<size_t>(indicator) <= usable;
    data.append(chunk.data(), whole ? static_cast<size_t>(indicator) : usable);
    if (rc == SQL_SUCCESS || whole) break;
  }
  return data;
}

// An exact decimal text with at most four decimals as Currency; nullopt for anything else.
std::optional<Currency> ParseCurrency(const std::string& text) {
  size_t i = 0;
  bool negative = !text.empty() && (text[0] == '-' || text[0] == '+');
  if (negative) negative = text[i++] == '-';
  int64_t scaled = 0;
  int decimals = -1;
  size_t digits = 0;
  for (; i < text.size(); ++i) {
    char c = text[i];
    if (c == '.' && decimals < 0) {
      decimals = 0;
      continue;
    }
    if (c < '0' || c > '9' || decimals == 4 || digits == 18) return std::nullopt;
    scaled = scaled * 10 + (c - '0');
    ++digits;
    if (decimals >= 0) ++decimals;
  }
  if (digits == 0 || digits + 4 - std::max(decimals, 0) > 18) return std::nullopt;
  for (int d = std::max(decimals, 0); d < 4; ++d) scaled *= 10;
  return Currency{negative ? -scaled : scaled};
}

Variant IntegerVariant(int64_t value, bool small) {
  if (small && value >= INT16_MIN && value <= INT16_MAX) return Variant(static_cast<int16_t>(value));
  if (value >= INT32_MIN && value <= INT32_MAX) return Variant(static_cast<int32_t>(value));
  return Variant(static_cast<double>(value));
}

template <class T>
Variant OrNull(const std::optional<T>& value) {
  return value ? Variant(*value) : Variant(Null{});
}

Variant ReadText(const OdbcHandle& statement, SQLUSMALLINT number, const ColumnInfo& column) {
  std::optional<std::string> text = GetLong(statement, number, SQL_C_CHAR);
  if (!text) return Variant(Null{});
  bool decimal = column.sql_type == SQL_DECIMAL || column.sql_type == SQL_NUMERIC;
  if (!decimal) return Variant(std::move(*text));
  if (column.scale >= 0 && column.scale <= 4) {
    if (std::optional<Currency> amount = ParseCurrency(*text)) return Variant(*amount);
  }
  return Variant(Variant(*text).ToDouble());
}

}  // namespace

Variant ReadColumn(const OdbcHandle& statement, SQLUSMALLINT number, const ColumnInfo& column) {
  switch (column.sql_type) {
    case SQL_TINYINT:
    case SQL_SMALLINT:
    case SQL_INTEGER:
    case SQL_BIGINT: {
      auto value = GetFixed<int64_t>(statement, number, SQL_C_SBIGINT);
      if (!value) return Variant(Null{});
      return IntegerVariant(*value, column.sql_type != SQL_INTEGER && column.sql_type != SQL_BIGINT);
    }
    case SQL_BIT: {
      auto value = GetFixed<unsigned char>(statement, number, SQL_C_BIT);
      return value ? Variant(*value != 0) : Variant(Null{});
    }
    case SQL_REAL: return OrNull(GetFixed<float>(statement, number, SQL_C_FLOAT));
    case SQL_FLOAT:
    case SQL_DOUBLE: return OrNull(GetFixed<double>(statement, number, SQL_C_DOUBLE));
    case SQL_TYPE_DATE:
    case SQL_TYPE_TIMESTAMP:
    case SQL_DATE:
    case SQL_TIMESTAMP: {
      auto ts = GetFixed<SQL_TIMESTAMP_STRUCT>(statement, number, SQL_C_TYPE_TIMESTAMP);
      return ts ? Variant(FromTimestamp(*ts)) : Variant(Null{});
    }
    case SQL_TYPE_TIME:
    case SQL_TIME: {
      auto time = GetFixed<SQL_TIME_STRUCT>(statement, number, SQL_C_TYPE_TIME);
      if (!time) return Variant(Null{});
      return Variant(FromTimestamp({1899, 12, 30, time->hour, time->minute, time->second, 0}));
    }
    case SQL_BINARY:
    case SQL_VARBINARY:
    case SQL_LONGVARBINARY: {
      std::optional<std::string> bytes = GetLong(statement, number, SQL_C_BINARY);
      if (!bytes) return Variant(Null{});
      return Variant(std::vector<uint8_t>(bytes->begin(), bytes->end()));
    }
    default: return ReadText(statement, number, column);
  }
}

}  // namespace pelmora::db::internal
