#include "pelmora/common/error_texts.h"

#include <charconv>
#include <unordered_map>

#include <fmt/format.h>

namespace pelmora {
namespace {

#include "pelmora/common/error_texts_data.inc"

struct Entry {
  std::string_view name;
  std::string_view text;
};
using Table = std::unordered_map<int32_t, Entry>;

// Parses "code<TAB>[name<TAB>]text" lines after a header line; `columns` is 2 or 3.
Table ParseTsv(std::string_view tsv, int columns) {
  Table table;
  bool header = true;
  while (!tsv.empty()) {
    size_t end = tsv.find('\n');
    std::string_view line = tsv.substr(0, end);
    tsv = end == std::string_view::npos ? std::string_view() : tsv.substr(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (header || line.empty()) {
      header = false;
      continue;
    }
    size_t tab1 = line.find('\t');
    int32_t code = 0;
    std::from_chars(line.data(), line.data() + tab1, code);
    std::string_view rest = line.substr(tab1 + 1);
    Entry entry;
    if (columns == 3) {
      size_t tab2 = rest.find('\t');
      entry.name = rest.substr(0, tab2);
      rest = rest.substr(tab2 + 1);
    }
    entry.text = rest;
    table.emplace(code, entry);
  }
  return table;
}

const Table& SystemTable() {
  static const Table table = ParseTsv(kSystemMessagesTsv, 3);
  return table;
}

const Table& RuntimeTable() {
  static const Table table = ParseTsv(kRuntimeErrorsTsv, 2);
  return table;
}

std::optional<Entry> Find(const Table& table, int32_t code) {
  auto it = table.find(code);
  if (it == table.end()) return std::nullopt;
  return it->second;
}

}  // namespace

std::optional<std::string_view> SystemMessageText(int32_t code) {
  auto entry = Find(SystemTable(), code);
  if (!entry) return std::nullopt;
  return entry->text;
}

std::optional<std::string_view> SystemMessageName(int32_t code) {
  auto entry = Find(SystemTable(), code);
  if (!entry) return std::nullopt;
  return entry->name;
}

std::optional<std::string_view> RuntimeErrorText(int32_t code) {
  auto entry = Find(RuntimeTable(), code);
  if (!entry) return std::nullopt;
  return entry->text;
}

std::string NoDescriptionText(int32_t code) { return fmt::format("Error: {} (no description)", code); }

std::string DescribeError(int32_t code) {
  auto text = SystemMessageText(code);
  return text ? std::string(*text) : NoDescriptionText(code);
}

}  // namespace pelmora
