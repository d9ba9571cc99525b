#include "tools/pelmora/sql_output.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

namespace pelmora_tool {
namespace {

using pelmora::Variant;
using pelmora::VariantType;

// Characters of a UTF-8 text (continuation bytes are not counted).
size_t Width(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string Pad(const std::string& text, size_t width, bool right) {
  std::string padding(width - std::min(width, Width(text)), ' ');
  return right ? padding + text : text + padding;
}

std::string CsvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string out = "\"";
  for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

bool IsNumber(const Variant& value) { return value.IsNumeric() && !value.Get<bool>(); }

}  // namespace

ResultTable ReadResult(pelmora::db::Recordset& recordset, size_t max_rows) {
  ResultTable table;
  for (int32_t i = 0; i < recordset.FieldCount(); ++i)
    table.columns.push_back(recordset.FieldName(i));
  for (size_t n = 0; n < max_rows && !recordset.Eof(); ++n, recordset.MoveNext()) {
    std::vector<Variant> row;
    for (int32_t i = 0; i < recordset.FieldCount(); ++i)
      row.push_back(recordset.FieldValue(Variant(i)));
    table.rows.push_back(std::move(row));
  }
  return table;
}

std::string ValueText(const Variant& value, bool csv) {
  if (value.IsNull() || value.IsEmpty()) return csv ? "" : "NULL";
  if (const pelmora::Date* date = value.Get<pelmora::Date>()) {
    return date->Format("yyyy-mm-dd hh:nn:ss");
  }
  if (const auto* bytes = value.Get<std::vector<uint8_t>>()) {
    std::string hex = "0x";
    for (uint8_t b : *bytes) hex += fmt::format("{:02X}", b);
    return hex;
  }
  return value.ToString();
}

std::string FormatTable(const ResultTable& table) {
  std::vector<size_t> widths;
  for (const std::string& name : table.columns) widths.push_back(Width(name));
  for (const auto& row : table.rows) {
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], Width(ValueText(row[i])));
    }
  }
  std::string out;
  std::string rule;
  for (size_t i = 0; i < widths.size(); ++i) {
    out += (i == 0 ? "" : " | ") + Pad(table.columns[i], widths[i], false);
    rule += (i == 0 ? "" : "-+-") + std::string(widths[i], '-');
  }
  out += "\n" + rule + "\n";
  for (const auto& row : table.rows) {
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
      out += (i == 0 ? "" : " | ") + Pad(ValueText(row[i]), widths[i], IsNumber(row[i]));
    }
    out += "\n";
  }
  return out + fmt::format("({} row{})\n", table.rows.size(), table.rows.size() == 1 ? "" : "s");
}

std::string FormatCsv(const ResultTable& table) {
  std::string out;
  for (size_t i = 0; i < table.columns.size(); ++i) {
    out += (i == 0 ? "" : ",") + CsvField(table.columns[i]);
  }
  out += "\r\n";
  for (const auto& row : table.rows) {
    for (size_t i = 0; i < row.size(); ++i)
      out += (i == 0 ? "" : ",") + CsvField(ValueText(row[i], true));
    out += "\r\n";
  }
  return out;
}

std::string FormatJson(const ResultTable& table) {
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const auto& row : table.rows) {
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    for (size_t i = 0; i < row.size() && i < table.columns.size(); ++i) {
      const Variant& value = row[i];
      nlohmann::ordered_json& field = object[table.columns[i]];
      if (value.IsNull() || value.IsEmpty()) {
        field = nullptr;
      } else if (const bool* flag = value.Get<bool>()) {
        field = *flag;
      } else if (value.Type() == VariantType::kInteger || value.Type() == VariantType::kLong ||
                 value.Type() == VariantType::kByte) {
        field = value.ToLong();
      } else if (IsNumber(value)) {
        field = value.ToDouble();
      } else {
        field = ValueText(value);
      }
    }
    rows.push_back(std::move(object));
  }
  return rows.dump(2) + "\n";
}

std::string ChangedRows(int32_t count) {
  if (count < 0) return "OK\n";
  return std::to_string(count) + (count == 1 ? " row changed\n" : " rows changed\n");
}

}  // namespace pelmora_tool
