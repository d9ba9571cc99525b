#include "pelmora/admin/internal/server_text.h"

#include <langinfo.h>
#include <locale.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>
#include <vector>

namespace pelmora::admin::internal {
namespace {

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

bool IsAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// The next run of non-separator characters from `pos`, leaving `pos` after it.
std::string_view NextComponent(std::string_view path, size_t& pos) {
  while (pos < path.size() && IsSeparator(path[pos])) ++pos;
  size_t start = pos;
  while (pos < path.size() && !IsSeparator(path[pos])) ++pos;
  return path.substr(start, pos - start);
}

// The root of `path` in its normal form ("" for a relative path) and where the rest begins.
std::string SplitRoot(std::string_view path, size_t& rest) {
  rest = 0;
  if (path.size() >= 2 && IsSeparator(path[0]) && IsSeparator(path[1])) {
    rest = 2;
    std::string root = "\\\\" + std::string(NextComponent(path, rest));
    std::string_view share = NextComponent(path, rest);
    if (!share.empty()) root += "\\" + std::string(share);
    return root + "\\";
  }
  if (path.size() >= 2 && IsAsciiLetter(path[0]) && path[1] == ':') {
    // A drive-relative "C:name" is taken from the drive's root: the server's current folder on
    // that drive is not known here.
    rest = 2;
    return std::string(path.substr(0, 2)) + "\\";
  }
  if (!path.empty() && IsSeparator(path[0])) return "\\";
  return "";
}

}  // namespace

std::string NormaliseServerPath(std::string_view path) {
  size_t pos = 0;
  std::string root = SplitRoot(path, pos);
  const bool relative = root.empty();
  std::vector<std::string_view> parts;
  for (std::string_view part = NextComponent(path, pos); !part.empty();
       part = NextComponent(path, pos)) {
    if (part == ".") continue;
    if (part != "..") {
      parts.push_back(part);
    } else if (!parts.empty() && parts.back() != "..") {
      parts.pop_back();
    } else if (relative) {
      parts.push_back(part);
    }
  }
  std::string out = root;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += '\\';
    out += parts[i];
  }
  if (parts.empty()) return relative ? "." : out;
  if (!path.empty() && IsSeparator(path.back())) out += '\\';
  return out;
}

namespace {

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlank(" \t\r\n\0", 5);
  size_t first = text.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  size_t last = text.find_last_not_of(kBlank);
  return text.substr(first, last - first + 1);
}

// Splits `text` at every `sep` into exactly `n` decimal fields of 1 to 4 digits each.
template <size_t n>
std::optional<std::array<int, n>> Fields(std::string_view text, char sep) {
  std::array<int, n> out{};
  for (size_t i = 0; i < n; ++i) {
    size_t end = i + 1 < n ? text.find(sep) : text.size();
    if (end == std::string_view::npos || end == 0 || end > 4) return std::nullopt;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + end, out[i]);
    if (ec != std::errc() || ptr != text.data() + end) return std::nullopt;
    text.remove_prefix(end < text.size() ? end + 1 : end);
  }
  return out;
}

// A two-digit year as the automation conversion reads it: 00-29 are 2000-2029, 30-99 1930-1999.
int WidenYear(int year, size_t digits) {
  if (digits > 2) return year;
  return year + (year < 30 ? 2000 : 1900);
}

bool ValidDay(int year, int month, int day) {
  return Date::FromCivil({year, month, day, 0, 0, 0}).has_value();
}

// Three numeric fields joined by one of '/', '.' or '-': year first (4 digits), or day and month
// first with a year of 4 or 2 digits last. Day and month come in the preferred order unless that
// gives no date and the other order does.
bool ParseDatePart(std::string_view token, DayOrder order, CivilTime& civil) {
  const size_t at = token.find_first_of("/.-");
  if (at == std::string_view::npos) return false;
  const char sep = token[at];
  const auto f = Fields<3>(token, sep);
  if (!f) return false;
  const size_t first_digits = at;
  const size_t last_digits = token.size() - token.rfind(sep) - 1;
  if (first_digits == 4 && last_digits <= 2) {
    civil.year = (*f)[0];
    civil.month = (*f)[1];
    civil.day = (*f)[2];
    return true;
  }
  if (last_digits != 4 && last_digits != 2) return false;
  civil.year = WidenYear((*f)[2], last_digits);
  const bool day_first = order == DayOrder::kDayFirst;
  civil.day = (*f)[day_first ? 0 : 1];
  civil.month = (*f)[day_first ? 1 : 0];
  if (!ValidDay(civil.year, civil.month, civil.day) &&
      ValidDay(civil.year, civil.day, civil.month)) {
    std::swap(civil.day, civil.month);
  }
  return true;
}

bool ParseTimePart(std::string_view token, std::string_view meridiem, CivilTime& civil) {
  size_t colons = static_cast<size_t>(std::count(token.begin(), token.end(), ':'));
  std::optional<std::array<int, 3>> f;
  if (colons == 1) {
    auto two = Fields<2>(token, ':');
    if (two) f = std::array<int, 3>{(*two)[0], (*two)[1], 0};
  } else if (colons == 2) {
    f = Fields<3>(token, ':');
  }
  if (!f) return false;
  civil.hour = (*f)[0];
  civil.minute = (*f)[1];
  civil.second = (*f)[2];
  if (meridiem.empty()) return true;
  if (civil.hour < 1 || civil.hour > 12) return false;
  const bool pm = meridiem == "PM" || meridiem == "pm" || meridiem == "Pm" || meridiem == "pM";
  const bool am = meridiem == "AM" || meridiem == "am" || meridiem == "Am" || meridiem == "aM";
  if (!pm && !am) return false;
  civil.hour = civil.hour % 12 + (pm ? 12 : 0);
  return true;
}

}  // namespace

DayOrder LocaleDayOrder() {
  const locale_t locale = ::newlocale(LC_TIME_MASK, "", static_cast<locale_t>(nullptr));
  if (locale == static_cast<locale_t>(nullptr)) return DayOrder::kMonthFirst;
  const std::string_view format = ::nl_langinfo_l(D_FMT, locale);
  size_t day = format.find("%d");
  if (day == std::string_view::npos) day = format.find("%e");
  const size_t month = format.find("%m");
  ::freelocale(locale);
  return day < month ? DayOrder::kDayFirst : DayOrder::kMonthFirst;
}

std::optional<Date> ParseServerDate(std::string_view text) {
  return ParseServerDate(text, LocaleDayOrder());
}

std::optional<Date> ParseServerDate(std::string_view text, DayOrder order) {
  std::vector<std::string_view> tokens;
  size_t pos = 0;
  text = Trim(text);
  while (pos < text.size()) {
    size_t end = text.find(' ', pos);
    if (end == std::string_view::npos) end = text.size();
    if (end > pos) tokens.push_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  if (tokens.empty() || tokens.size() > 3) return std::nullopt;
  CivilTime civil;
  size_t next = 0;
  if (tokens[0].find(':') == std::string_view::npos) {
    if (!ParseDatePart(tokens[0], order, civil)) return std::nullopt;
    next = 1;
  }
  if (next < tokens.size()) {
    std::string_view meridiem = next + 1 < tokens.size() ? tokens[next + 1] : std::string_view();
    if (next + 2 < tokens.size() || !ParseTimePart(tokens[next], meridiem, civil)) {
      return std::nullopt;
    }
  }
  return Date::FromCivil(civil);
}

}  // namespace pelmora::admin::internal
