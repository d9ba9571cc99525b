#include "pelmora/db/sql_text.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace pelmora::db {
namespace {

// `text` between `quote` characters, with every `doubled` character written twice.
std::string Quote(std::string_view text, char open, char close, char doubled) {
  std::string out;
  out.reserve(text.size() + 2);
  out += open;
  for (char c : text) {
    out += c;
    if (c == doubled) out += c;
  }
  out += close;
  return out;
}

}  // namespace

std::string EscapeName(std::string_view name) { return Quote(name, '[', ']', ']'); }

std::string EscapeValue(std::string_view text) { return Quote(text, '\'', '\'', '\''); }

std::string EscapeLike(std::string_view pattern) {
  std::string out = "'";
  char previous = '\0';
  for (char c : pattern) {
    switch (c) {
      case '*':
        if (previous != '*') out += '%';
        break;
      case '?':
        out += '_';
        break;
      case '[':
      case '%':
      case '_':
      case '\\':
        out += '\\';
        out += c;
        break;
      case '\'':
        out += "''";
        break;
      default:
        out += c;
    }
    previous = c;
  }
  return out + "' ESCAPE '\\'";
}

std::string ValueLiteral(const Variant& value, bool unicode) {
  switch (value.Type()) {
    case VariantType::kEmpty:
    case VariantType::kNull:
      return "NULL";
    case VariantType::kInteger:
    case VariantType::kLong:
    case VariantType::kSingle:
    case VariantType::kDouble:
    case VariantType::kCurrency:
    case VariantType::kByte:
      return value.ToString();  // invariant digits and "." whatever the locale
    case VariantType::kDate:
      return "'" + value.Get<Date>()->Format("yyyy-mm-dd hh:nn:ss") + "'";
    case VariantType::kBoolean:
      return *value.Get<bool>() ? "1" : "0";
    default:
      return (unicode ? "N" : "") + EscapeValue(value.ToString());
  }
}

std::string BuildUpdateStatement(std::string_view table_name, const VariantArray& values,
                                 const VariantArray& wheres, bool unicode) {
  std::string set_list;
  for (int64_t i = values.lower_bound; i <= values.UpperBound(); i += 2) {
    auto index = static_cast<int32_t>(i);
    set_list += "," + EscapeName(values.At(index).ToString()) + "=" +
                ValueLiteral(values.At(index + 1), unicode);
  }
  std::string conditions;
  for (int64_t i = wheres.lower_bound; i <= wheres.UpperBound(); i += 2) {
    auto index = static_cast<int32_t>(i);
    conditions += " AND " + EscapeName(wheres.At(index).ToString()) + "=" +
                  ValueLiteral(wheres.At(index + 1), unicode);
  }
  // The set list loses its leading comma; the conditions lose " AND" but keep the blank after it.
  std::string statement = "UPDATE " + EscapeName(table_name) + "SET ";
  if (!set_list.empty()) statement.append(set_list, 1);
  statement += " WHERE ";
  if (conditions.size() > 4) statement.append(conditions, 4);
  return statement;
}

std::string BuildInsertStatement(std::string_view table_name, const VariantArray& field_list,
                                 const VariantArray& values, bool unicode) {
  std::string names;
  std::string literals;
  for (int64_t i = field_list.lower_bound; i <= field_list.UpperBound(); ++i) {
    auto index = static_cast<int32_t>(i);
    names += "," + EscapeName(field_list.At(index).ToString());
    literals += "," + ValueLiteral(values.At(index), unicode);
  }
  std::string statement = "INSERT INTO " + EscapeName(table_name) + "(";
  if (!names.empty()) statement.append(names, 1);
  statement += ") values (";
  if (!literals.empty()) statement.append(literals, 1);
  return statement + ")";
}

}  // namespace pelmora::db
