#include "pelmora/db/sql_text.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>

namespace pelmora::db {
namespace {

// Appends `text` between `open` and `close`, with every `doubled` character written twice.
void AppendQuoted(std::string& out, std::string_view text, char open, char close, char doubled) {
  out += open;
  for (size_t start = 0; start <= text.size();) {
    size_t found = text.find(doubled, start);
    if (found == std::string_view::npos) {
      out.append(text, start);
      break;
    }
    out.append(text, start, found - start + 1);
    out += doubled;
    start = found + 1;
  }
  out += close;
}

void AppendName(std::string& out, std::string_view name) { AppendQuoted(out, name, '[', ']', ']'); }

// Appends the quoted text of a name element: a String as it is, anything else converted.
void AppendNameElement(std::string& out, const Variant& name) {
  if (const std::string* text = name.Get<std::string>()) return AppendName(out, *text);
  AppendName(out, name.ToString());
}

// A Double as the 15-significant-digit text Variant gives it, without the general formatter
// when the shortest exact form is short and needs no exponent (the common case, and the same
// digits: a form of at most 15 digits is what rounding to 15 digits gives).
std::string DoubleText(const Variant& value) {
  double number = *value.Get<double>();
  double magnitude = std::fabs(number);
  if (number != 0 && magnitude >= 1e-4 && magnitude < 1e15) {
    std::array<char, 64> buffer{};
    auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number,
                                   std::chars_format::fixed);
    if (ec == std::errc()) {
      std::string_view text(buffer.data(), end - buffer.data());
      size_t first = text.find_first_not_of("-0.");
      size_t digits = 0;
      for (size_t i = first; i < text.size(); ++i) digits += text[i] != '.';
      if (digits <= 15) return std::string(text);
    }
  }
  return value.ToString();
}

// Appends the literal of `value` (see ValueLiteral).
void AppendLiteral(std::string& out, const Variant& value, bool unicode) {
  switch (value.Type()) {
    case VariantType::kEmpty:
    case VariantType::kNull:
      out += "NULL";
      return;
    case VariantType::kInteger:
    case VariantType::kLong:
    case VariantType::kByte:
      out += fmt::format_int(value.ToLong()).c_str();
      return;
    case VariantType::kDouble:
      out += DoubleText(value);
      return;
    case VariantType::kSingle:
    case VariantType::kCurrency:
      out += value.ToString();  // invariant digits and "." whatever the locale
      return;
    case VariantType::kDate:
      out += "'" + value.Get<Date>()->Format("yyyy-mm-dd hh:nn:ss") + "'";
      return;
    case VariantType::kBoolean:
      out += *value.Get<bool>() ? "1" : "0";
      return;
    case VariantType::kString:
      if (unicode) out += 'N';
      AppendQuoted(out, *value.Get<std::string>(), '\'', '\'', '\'');
      return;
    default:
      if (unicode) out += 'N';
      AppendQuoted(out, value.ToString(), '\'', '\'', '\'');
  }
}

}  // namespace

std::string EscapeName(std::string_view name) {
  std::string out;
  AppendName(out, name);
  return out;
}

std::string EscapeValue(std::string_view text) {
  std::string out;
  AppendQuoted(out, text, '\'', '\'', '\'');
  return out;
}

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
  std::string out;
  AppendLiteral(out, value, unicode);
  return out;
}

std::string BuildUpdateStatement(std::string_view table_name, const VariantArray& values,
                                 const VariantArray& wheres, bool unicode) {
  std::string set_list;
  for (int64_t i = values.lower_bound; i <= values.UpperBound(); i += 2) {
    auto index = static_cast<int32_t>(i);
    set_list += ',';
    AppendNameElement(set_list, values.At(index));
    set_list += '=';
    AppendLiteral(set_list, values.At(index + 1), unicode);
  }
  std::string conditions;
  for (int64_t i = wheres.lower_bound; i <= wheres.UpperBound(); i += 2) {
    auto index = static_cast<int32_t>(i);
    conditions += " AND ";
    AppendNameElement(conditions, wheres.At(index));
    conditions += '=';
    AppendLiteral(conditions, wheres.At(index + 1), unicode);
  }
  // The set list loses its leading comma; the conditions lose " AND" but keep the blank after it.
  std::string statement = "UPDATE ";
  AppendName(statement, table_name);
  statement += "SET ";
  if (!set_list.empty()) statement.append(set_list, 1);
  statement += " WHERE ";
  if (conditions.size() > 4) statement.append(conditions, 4);
  return statement;
}

std::string BuildInsertStatement(std::string_view table_name, const VariantArray& field_list,
                                 const VariantArray& values, bool unicode) {
  std::string statement;
  std::string literals;
  statement.reserve(128);
  literals.reserve(64);
  statement += "INSERT INTO ";
  AppendName(statement, table_name);
  statement += '(';
  for (int64_t i = field_list.lower_bound; i <= field_list.UpperBound(); ++i) {
    auto index = static_cast<int32_t>(i);
    if (i != field_list.lower_bound) statement += ',';
    AppendNameElement(statement, field_list.At(index));
    literals += ',';
    AppendLiteral(literals, values.At(index), unicode);
  }
  statement += ") values (";
  if (!literals.empty()) statement.append(literals, 1);
  statement += ')';
  return statement;
}

}  // namespace pelmora::db
