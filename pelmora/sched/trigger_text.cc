// The text form of triggers (see trigger.h for the grammar).
#include <array>
#include <charconv>
#include <cstdio>
#include <sstream>
#include <vector>

#include "pelmora/sched/trigger.h"

namespace pelmora::sched {
namespace {

constexpr std::array<std::string_view, 7> kDays = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};
constexpr std::array<std::string_view, 12> kMonths = {"jan", "feb", "mar", "apr", "may", "jun",
                                                      "jul", "aug", "sep", "oct", "nov", "dec"};
constexpr std::array<std::string_view, 5> kWeeks = {"first", "second", "third", "fourth", "last"};
constexpr std::array<std::string_view, 8> kTypes = {"once",       "daily",  "weekly",  "monthly",
                                                    "monthlydow", "onidle", "atstart", "atlogon"};

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (!text.empty()) {
    size_t end = text.find(separator);
    if (end != 0) parts.push_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return parts;
}

std::optional<uint32_t> Number(std::string_view text) {
  uint32_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
    return std::nullopt;
  }
  return value;
}

template <size_t N>
std::optional<size_t> IndexOf(const std::array<std::string_view, N>& names, std::string_view n) {
  for (size_t i = 0; i < N; ++i) {
    if (names[i] == n) return i;
  }
  return std::nullopt;
}

// A comma-separated list of names (bit i for names[i]) or, with no names, numbers 1..32.
template <size_t N>
std::optional<uint32_t> Mask(std::string_view text, const std::array<std::string_view, N>* names) {
  uint32_t mask = 0;
  for (std::string_view item : Split(text, ',')) {
    std::optional<size_t> bit;
    if (names != nullptr) {
      bit = IndexOf(*names, item);
    } else if (auto n = Number(item); n && *n >= 1 && *n <= 31) {
      bit = *n - 1;
    }
    if (!bit) return std::nullopt;
    mask |= 1u << *bit;
  }
  return mask == 0 ? std::nullopt : std::optional<uint32_t>(mask);
}

bool ReadClock(std::string_view text, JobTrigger& t) {
  std::vector<std::string_view> parts = Split(text, ':');
  if (parts.size() != 2) return false;
  auto hour = Number(parts[0]);
  auto minute = Number(parts[1]);
  if (!hour || !minute || *hour > 23 || *minute > 59) return false;
  t.start_hour = static_cast<uint16_t>(*hour);
  t.start_minute = static_cast<uint16_t>(*minute);
  return true;
}

bool ReadDay(std::string_view text, uint16_t& year, uint16_t& month, uint16_t& day) {
  std::vector<std::string_view> parts = Split(text, '-');
  if (parts.size() != 3) return false;
  auto y = Number(parts[0]), m = Number(parts[1]), d = Number(parts[2]);
  if (!y || !m || !d || !Date::FromCivil({int(*y), int(*m), int(*d), 0, 0, 0})) return false;
  year = static_cast<uint16_t>(*y), month = static_cast<uint16_t>(*m);
  day = static_cast<uint16_t>(*d);
  return true;
}

// The words after the type: the type's own fields, then the options.
class TriggerReader {
 public:
  TriggerReader(std::vector<std::string_view> words, JobTrigger& t) : words_(words), t_(t) {}

  bool Read() {
    bool ok = ReadTypeFields();
    while (ok && next_ < words_.size()) ok = ReadOption();
    return ok;
  }

 private:
  std::optional<std::string_view> Word() {
    if (next_ >= words_.size()) return std::nullopt;
    return words_[next_++];
  }
  bool Clock() {
    auto w = Word();
    return w && ReadClock(*w, t_);
  }

  template <size_t N>
  bool MaskInto(uint32_t& out, const std::array<std::string_view, N>* names) {
    auto w = Word();
    std::optional<uint32_t> mask = w ? Mask(*w, names) : std::nullopt;
    if (mask) out = *mask;
    return mask.has_value();
  }

  bool ReadTypeFields() {
    uint32_t mask = 0;
    switch (t_.type) {
      case TriggerType::kOnce: {
        auto w = Word();
        return w && ReadDay(*w, t_.begin_year, t_.begin_month, t_.begin_day) && Clock();
      }
      case TriggerType::kDaily:
        return Clock();
      case TriggerType::kWeekly:
        t_.data = {1, 0, 0};
        if (!MaskInto(mask, &kDays)) return false;
        t_.data[1] = static_cast<uint16_t>(mask);
        return Clock();
      case TriggerType::kMonthlyDate:
        if (!MaskInto(mask, static_cast<const std::array<std::string_view, 0>*>(nullptr))) {
          return false;
        }
        t_.data = {static_cast<uint16_t>(mask & 0xFFFF), static_cast<uint16_t>(mask >> 16), 0xFFF};
        return Clock();
      case TriggerType::kMonthlyDow: {
        auto w = Word();
        auto week = w ? IndexOf(kWeeks, *w) : std::nullopt;
        if (!week || !MaskInto(mask, &kDays)) return false;
        t_.data = {static_cast<uint16_t>(*week + 1), static_cast<uint16_t>(mask), 0xFFF};
        return Clock();
      }
      default:
        return true;
    }
  }

  bool ReadOption() {
    std::string_view option = *Word();
    if (option == "disabled") return (t_.flags |= kTriggerDisabled), true;
    auto value = Word();
    if (!value) return false;
    if (option == "from") return ReadDay(*value, t_.begin_year, t_.begin_month, t_.begin_day);
    if (option == "until") {
      t_.flags |= kTriggerHasEndDate;
      return ReadDay(*value, t_.end_year, t_.end_month, t_.end_day);
    }
    if (option == "every" && (t_.type == TriggerType::kDaily || t_.type == TriggerType::kWeekly)) {
      auto n = Number(*value);
      if (!n || *n == 0 || *n > 0xFFFF) return false;
      return (t_.data[0] = static_cast<uint16_t>(*n)), true;
    }
    if (option == "in" &&
        (t_.type == TriggerType::kMonthlyDate || t_.type == TriggerType::kMonthlyDow)) {
      auto mask = Mask(*value, &kMonths);
      return mask && ((t_.data[2] = static_cast<uint16_t>(*mask)), true);
    }
    if (option == "repeat") return ReadRepeat(*value);
    return false;
  }

  bool ReadRepeat(std::string_view interval_text) {
    auto interval = Number(interval_text);
    auto word = Word();
    auto duration = (word && *word == "for") ? Word() : std::nullopt;
    auto minutes = duration ? Number(*duration) : std::nullopt;
    if (!interval || !minutes || *interval == 0 || *minutes <= *interval) return false;
    t_.minutes_interval = *interval;
    t_.minutes_duration = *minutes;
    return true;
  }

  std::vector<std::string_view> words_;
  size_t next_ = 0;
  JobTrigger& t_;
};

template <size_t N>
std::string Names(uint32_t mask, const std::array<std::string_view, N>& names) {
  std::string out;
  for (size_t i = 0; i < N; ++i) {
    if (((mask >> i) & 1) != 0) out += (out.empty() ? "" : ",") + std::string(names[i]);
  }
  return out;
}

std::string DayText(uint16_t y, uint16_t m, uint16_t d) {
  char text[24];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u", unsigned{y}, unsigned{m}, unsigned{d});
  return text;
}

std::string DatesText(const JobTrigger& t) {
  uint32_t days = t.data[0] | (uint32_t{t.data[1]} << 16);
  std::string out;
  for (int i = 0; i < 31; ++i) {
    if (((days >> i) & 1) != 0) out += (out.empty() ? "" : ",") + std::to_string(i + 1);
  }
  return out;
}

std::string ClockText(const JobTrigger& t) {
  char text[8];
  std::snprintf(text, sizeof text, "%02u:%02u", t.start_hour % 100u, t.start_minute % 100u);
  return text;
}

// The type's own fields after the type word.
std::string TypeFieldsText(const JobTrigger& t) {
  std::string months = t.data[2] == 0xFFF ? "" : " in " + Names(t.data[2], kMonths);
  std::string every = t.data[0] <= 1 ? "" : " every " + std::to_string(t.data[0]);
  switch (t.type) {
    case TriggerType::kOnce:
      return " " + DayText(t.begin_year, t.begin_month, t.begin_day) + " " + ClockText(t);
    case TriggerType::kDaily:
      return " " + ClockText(t) + every;
    case TriggerType::kWeekly:
      return " " + Names(t.data[1], kDays) + " " + ClockText(t) + every;
    case TriggerType::kMonthlyDate:
      return " " + DatesText(t) + " " + ClockText(t) + months;
    case TriggerType::kMonthlyDow:
      return " " + std::string(kWeeks[(t.data[0] + 4) % 5]) + " " + Names(t.data[1], kDays) + " " +
             ClockText(t) + months;
    default:
      return "";
  }
}

}  // namespace

std::optional<JobTrigger> ParseTrigger(std::string_view text, const Date& today) {
  std::vector<std::string_view> words = Split(text, ' ');
  if (words.empty()) return std::nullopt;
  std::optional<size_t> type = IndexOf(kTypes, words[0]);
  if (!type) return std::nullopt;
  JobTrigger t = NewTrigger(today);
  t.flags = 0;
  t.start_hour = 0;
  t.start_minute = 0;
  t.type = static_cast<TriggerType>(*type);
  words.erase(words.begin());
  if (!TriggerReader(words, t).Read()) return std::nullopt;
  return t;
}

std::string FormatTrigger(const JobTrigger& t) {
  uint32_t type = static_cast<uint32_t>(t.type);
  if (type >= kTypes.size()) return "type " + std::to_string(type);
  std::string out = std::string(kTypes[type]) + TypeFieldsText(t);
  if (t.type != TriggerType::kOnce && IsTimeTrigger(t)) {
    out += " from " + DayText(t.begin_year, t.begin_month, t.begin_day);
  }
  if ((t.flags & kTriggerHasEndDate) != 0) {
    out += " until " + DayText(t.end_year, t.end_month, t.end_day);
  }
  if (t.minutes_interval != 0) {
    out += " repeat " + std::to_string(t.minutes_interval) + " for " +
           std::to_string(t.minutes_duration);
  }
  if ((t.flags & kTriggerDisabled) != 0) out += " disabled";
  return out;
}

}  // namespace pelmora::sched
