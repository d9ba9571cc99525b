#include "pelmora/common/internal/variant_text.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "pelmora/common/error.h"

namespace pelmora::internal {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlpha(char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }
char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// "&H1F" / "&O17": up to 4 digits wrap as 16-bit, up to 8 (hex) or 11 (octal) as 32-bit.
std::optional<double> ParseRadixText(std::string_view s) {
  int base = Lower(s[1]) == 'h' ? 16 : Lower(s[1]) == 'o' ? 8 : 0;
  std::string_view digits = s.substr(2);
  if (base == 0 || digits.empty() || digits.size() > (base == 16 ? 8u : 11u)) return std::nullopt;
  uint64_t value = 0;
  for (char c : digits) {
    int d = IsDigit(c) ? c - '0' : (Lower(c) >= 'a' && Lower(c) <= 'f') ? Lower(c) - 'a' + 10 : 99;
    if (d >= base) return std::nullopt;
    value = value * base + d;
  }
  if (value > 0xFFFFFFFFu) throw RuntimeError(6);
  if (value <= 0xFFFF && digits.size() <= 4) return static_cast<int16_t>(value);
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

// Copies sign, digits, fraction and exponent into `out` in the form strtod reads.
bool NormaliseDecimal(std::string_view s, std::string& out) {
  size_t i = 0;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) out += s[i++];
  size_t digits = 0;
  for (; i < s.size() && (IsDigit(s[i]) || (s[i] == ',' && digits > 0)); ++i) {
    if (s[i] != ',') out += s[i], ++digits;
  }
  if (i < s.size() && s[i] == '.') {
    out += s[i++];
    for (; i < s.size() && IsDigit(s[i]); ++i) out += s[i], ++digits;
  }
  if (digits == 0) return false;
  if (i < s.size() && (Lower(s[i]) == 'e' || Lower(s[i]) == 'd')) {
    out += 'e';
    ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) out += s[i++];
    size_t start = i;
    for (; i < s.size() && IsDigit(s[i]); ++i) out += s[i];
    if (i == start) return false;
  }
  return i == s.size();
}

}  // namespace

std::optional<double> ParseNumberText(std::string_view text) {
  std::string_view s = Trim(text);
  if (s.size() >= 2 && s[0] == '&') return ParseRadixText(s);
  std::string normal;
  if (!NormaliseDecimal(s, normal)) return std::nullopt;
  double value = std::strtod(normal.c_str(), nullptr);
  if (std::isinf(value)) throw RuntimeError(6);
  return value;
}

std::optional<bool> ParseBoolText(std::string_view text) {
  std::string_view s = Trim(text);
  if (EqualsIgnoreCase(s, "true")) return true;
  if (EqualsIgnoreCase(s, "false")) return false;
  return std::nullopt;
}

std::string FormatNumberText(double value, int digits) {
  if (value == 0) return "0";
  return fmt::format("{:.{}G}", value, digits);
}

std::string FormatCurrencyText(int64_t scaled) {
  uint64_t magnitude = scaled < 0 ? 0 - static_cast<uint64_t>(scaled) : scaled;
  std::string text = fmt::format("{}{}", scaled < 0 ? "-" : "", magnitude / 10000);
  uint64_t fraction = magnitude % 10000;
  if (fraction == 0) return text;
  std::string decimals = fmt::format("{:04}", fraction);
  while (decimals.back() == '0') decimals.pop_back();
  return text + "." + decimals;
}

std::string FormatDateText(Date date) {
  CivilTime c = date.ToCivil();
  double serial = date.Serial();
  std::string day = fmt::format("{}/{}/{}", c.month, c.day, c.year);
  int hour12 = c.hour % 12 == 0 ? 12 : c.hour % 12;
  std::string time =
      fmt::format("{}:{:02}:{:02} {}", hour12, c.minute, c.second, c.hour < 12 ? "AM" : "PM");
  if (std::trunc(serial) == 0) return time;
  if (c.hour == 0 && c.minute == 0 && c.second == 0) return day;
  return day + " " + time;
}

namespace {

// One piece of a date text: a run of digits or of letters, with the separator that ended it.
struct DateToken {
  std::string_view text;
  bool number = false;
  char separator = ' ';
};

std::optional<std::vector<DateToken>> TokeniseDate(std::string_view s) {
  std::vector<DateToken> tokens;
  size_t i = 0;
  while (i < s.size() && tokens.size() < 12) {
    if (s[i] == ' ' || s[i] == ',' || s[i] == '/' || s[i] == '-' || s[i] == '.' || s[i] == ':') {
      if (!tokens.empty() && tokens.back().separator == ' ') tokens.back().separator = s[i];
      ++i;
      continue;
    }
    size_t start = i;
    bool number = IsDigit(s[i]);
    while (i < s.size() && (number ? IsDigit(s[i]) : IsAlpha(s[i]))) ++i;
    if (i == start) return std::nullopt;
    tokens.push_back({s.substr(start, i - start), number, ' '});
  }
  if (i < s.size()) return std::nullopt;
  return tokens;
}

int MonthFromName(std::string_view word) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "january", "february", "march",     "april",   "may",      "june",
      "july",    "august",   "september", "october", "november", "december"};
  if (word.size() < 3) return 0;
  for (size_t m = 0; m < kMonths.size(); ++m) {
    if (word.size() <= kMonths[m].size() &&
        EqualsIgnoreCase(word, kMonths[m].substr(0, word.size())))
      return static_cast<int>(m) + 1;
  }
  return 0;
}

// The pieces of a date text sorted by role.
struct DateParts {
  std::vector<std::string_view> date_numbers;
  std::vector<int> time_numbers;
  int month_name = 0;
  int meridiem = 0;  // 0 none, 1 AM, 2 PM
};

std::optional<DateParts> SortDateTokens(const std::vector<DateToken>& tokens) {
  DateParts parts;
  bool in_time = false;
  for (const DateToken& t : tokens) {
    if (!t.number) {
      int month = MonthFromName(t.text);
      if (EqualsIgnoreCase(t.text, "am") || EqualsIgnoreCase(t.text, "pm")) {
        parts.meridiem = Lower(t.text[0]) == 'a' ? 1 : 2;
      } else if (month != 0 && parts.month_name == 0) {
        parts.month_name = month;
      } else if (!EqualsIgnoreCase(t.text, "t")) {
        return std::nullopt;
      }
      continue;
    }
    if (t.text.size() > 4) return std::nullopt;
    if (t.separator == ':' || in_time) {
      parts.time_numbers.push_back(std::atoi(std::string(t.text).c_str()));
    } else {
      parts.date_numbers.push_back(t.text);
    }
    in_time = t.separator == ':';
  }
  return parts;
}

// A two-digit year: 0-29 is 2000-2029, 30-99 is 1930-1999.
int FullYear(std::string_view text) {
  int year = std::atoi(std::string(text).c_str());
  if (text.size() <= 2) return year < 30 ? 2000 + year : 1900 + year;
  return year;
}

bool FillCalendar(const DateParts& p, CivilTime& c) {
  const auto& n = p.date_numbers;
  auto num = [](std::string_view t) { return std::atoi(std::string(t).c_str()); };
  if (n.empty() && p.month_name == 0) return true;  // a time alone keeps the zero day
  if (p.month_name != 0 && n.size() == 2) {
    bool year_first = n[0].size() > 2;
    c.month = p.month_name;
    c.day = num(year_first ? n[1] : n[0]);
    c.year = FullYear(year_first ? n[0] : n[1]);
    return true;
  }
  if (p.month_name != 0 || n.size() != 3) return false;
  bool year_first = n[0].size() > 2;
  c.year = FullYear(year_first ? n[0] : n[2]);
  c.month = num(year_first ? n[1] : n[0]);
  c.day = num(year_first ? n[2] : n[1]);
  return true;
}

bool FillClock(const DateParts& p, CivilTime& c) {
  const auto& t = p.time_numbers;
  if (t.empty()) return p.meridiem == 0;
  if (t.size() > 3) return false;
  c.hour = t[0];
  c.minute = t.size() > 1 ? t[1] : 0;
  c.second = t.size() > 2 ? t[2] : 0;
  if (p.meridiem == 0) return true;
  if (c.hour < 1 || c.hour > 12) return false;
  c.hour = c.hour % 12 + (p.meridiem == 2 ? 12 : 0);
  return true;
}

}  // namespace

std::optional<Date> ParseDateText(std::string_view text) {
  auto tokens = TokeniseDate(Trim(text));
  if (!tokens || tokens->empty()) return std::nullopt;
  auto parts = SortDateTokens(*tokens);
  if (!parts) return std::nullopt;
  CivilTime c;
  if (!FillCalendar(*parts, c) || !FillClock(*parts, c)) return std::nullopt;
  // A time alone stays on the zero day, 1899-12-30.
  return Date::FromCivil(c);
}

}  // namespace pelmora::internal
