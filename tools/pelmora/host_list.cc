#include "tools/pelmora/host_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <utility>

#include "tools/pelmora/crypto_io.h"

namespace pelmora_tool {
namespace {

constexpr std::size_t kMaxDigits = 9;

std::string_view Trim(std::string_view text) {
  size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  size_t last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

bool AllDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
  });
}

// Splits `text` at the commas and blanks outside brackets; throws for unbalanced or nested
// brackets.
std::vector<std::string_view> SplitTopLevel(std::string_view text) {
  std::vector<std::string_view> pieces;
  bool inside = false;
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '[' || c == ']') {
      if (inside == (c == '[')) throw CommandError(fmt::format("unbalanced '{}' in \"{}\"", c, text));
      inside = c == '[';
    } else if ((c == ',' || c == ' ' || c == '\t' || c == '\n' || c == '\r') && !inside) {
      pieces.push_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  if (inside) throw CommandError(fmt::format("unbalanced '[' in \"{}\"", text));
  pieces.push_back(text.substr(start));
  return pieces;
}

// The numbers of one range body such as "01-03,7", as text padded to their span's width.
std::vector<std::string> ExpandRange(std::string_view body) {
  std::vector<std::string> numbers;
  for (std::string_view item : SplitTopLevel(body)) {
    size_t dash = item.find('-');
    std::string_view low = item.substr(0, dash);
    std::string_view high = dash == std::string_view::npos ? low : item.substr(dash + 1);
    if (!AllDigits(low) || !AllDigits(high) || low.size() > kMaxDigits ||
        high.size() > kMaxDigits) {
      throw CommandError(fmt::format("bad range \"[{}]\": use numbers such as [1-3,7]", body));
    }
    long first = std::stol(std::string(low));
    long last = std::stol(std::string(high));
    if (last < first) throw CommandError(fmt::format("reversed range \"{}\"", item));
    if (static_cast<size_t>(last - first) >= kMaxHosts) {
      throw CommandError(fmt::format("more than {} hosts", kMaxHosts));
    }
    for (long n = first; n <= last; ++n) numbers.push_back(fmt::format("{:0{}}", n, low.size()));
  }
  return numbers;
}

// Every name an expression without its port stands for, appended to `out`.
void ExpandNames(std::string_view expression, std::string prefix, std::vector<std::string>& out) {
  size_t open = expression.find('[');
  if (open == std::string_view::npos) {
    if (out.size() >= kMaxHosts) throw CommandError(fmt::format("more than {} hosts", kMaxHosts));
    out.push_back(prefix.append(expression));
    return;
  }
  size_t close = expression.find(']', open);
  std::string head = prefix.append(expression.substr(0, open));
  for (const std::string& number : ExpandRange(expression.substr(open + 1, close - open - 1))) {
    ExpandNames(expression.substr(close + 1), head + number, out);
  }
}

// Splits off a trailing ":port" (after the last bracket); returns 0 when there is none.
int32_t SplitPort(std::string_view& expression) {
  size_t colon = expression.rfind(':');
  size_t bracket = expression.rfind(']');
  if (colon == std::string_view::npos ||
      (bracket != std::string_view::npos && colon < bracket)) {
    return 0;
  }
  std::string_view port = expression.substr(colon + 1);
  long value = AllDigits(port) && port.size() <= 5 ? std::stol(std::string(port)) : 0;
  if (value < 1 || value > 65535) {
    throw CommandError(fmt::format("bad port in \"{}\"", expression));
  }
  expression = expression.substr(0, colon);
  return static_cast<int32_t>(value);
}

void AddExpression(std::string_view expression, std::vector<HostTarget>& hosts) {
  int32_t port = SplitPort(expression);
  if (expression.empty()) throw CommandError("a host entry has a port but no name");
  std::vector<std::string> names;
  ExpandNames(expression, "", names);
  std::vector<HostTarget> expanded;
  for (std::string& name : names) expanded.push_back({std::move(name), port});
  MergeHosts(hosts, expanded);
}

// A name split around its last run of digits.
struct NumberedName {
  std::string prefix;
  std::string digits;
  std::string suffix;
};

NumberedName SplitLastNumber(const std::string& name) {
  size_t end = name.find_last_of("0123456789");
  if (end == std::string::npos) return {name, "", ""};
  size_t start = name.find_last_not_of("0123456789", end);
  start = start == std::string::npos ? 0 : start + 1;
  if (end + 1 - start > kMaxDigits) return {name, "", ""};
  return {name.substr(0, start), name.substr(start, end + 1 - start), name.substr(end + 1)};
}

// "a-b" spans of consecutive numbers, comma-separated. A span keeps the width of its first
// number, so it may grow past it ("9-10", "98-100") but never take in a wider padded number.
std::string FoldNumbers(std::vector<std::string> numbers) {
  std::sort(numbers.begin(), numbers.end(), [](const std::string& a, const std::string& b) {
    return std::make_pair(std::stol(a), a.size()) < std::make_pair(std::stol(b), b.size());
  });
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  std::string out;
  for (size_t i = 0; i < numbers.size();) {
    size_t j = i;
    while (j + 1 < numbers.size() && std::stol(numbers[j + 1]) == std::stol(numbers[j]) + 1 &&
           (numbers[j + 1].size() == numbers[j].size() || numbers[j + 1][0] != '0')) {
      ++j;
    }
    if (!out.empty()) out += ',';
    out += j == i ? numbers[i] : numbers[i] + "-" + numbers[j];
    i = j + 1;
  }
  return out;
}

// The name and port of every host a list already holds.
using HostKeys = std::set<std::pair<std::string, int32_t>>;

// Appends the hosts of `more` that `seen` does not hold yet to `hosts`, and adds them to `seen`.
void AppendNew(std::vector<HostTarget>& hosts, HostKeys& seen,
               const std::vector<HostTarget>& more) {
  for (const HostTarget& host : more) {
    if (!seen.emplace(host.name, host.port).second) continue;
    if (hosts.size() >= kMaxHosts) throw CommandError(fmt::format("more than {} hosts", kMaxHosts));
    hosts.push_back(host);
  }
}

}  // namespace

std::string HostTarget::Display() const {
  return port == 0 ? name : name + ":" + std::to_string(port);
}

std::vector<HostTarget> ParseHostList(std::string_view text) {
  std::vector<HostTarget> hosts;
  for (std::string_view piece : SplitTopLevel(text)) {
    std::string_view expression = Trim(piece);
    if (!expression.empty()) AddExpression(expression, hosts);
  }
  return hosts;
}

std::vector<HostTarget> ReadHostsFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw CommandError("cannot read the hosts file " + path);
  std::vector<HostTarget> hosts;
  HostKeys seen;  // kept across lines: rebuilding it for every line made a file quadratic
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    std::string_view text = line;
    text = text.substr(0, text.find('#'));
    try {
      AppendNew(hosts, seen, ParseHostList(text));
    } catch (const CommandError& e) {
      throw CommandError(fmt::format("{}:{}: {}", path, number, e.what()));
    }
  }
  return hosts;
}

void MergeHosts(std::vector<HostTarget>& hosts, const std::vector<HostTarget>& more) {
  HostKeys seen;
  for (const HostTarget& host : hosts) seen.emplace(host.name, host.port);
  AppendNew(hosts, seen, more);
}

std::string FoldHostNames(const std::vector<std::string>& names) {
  // Groups keyed by prefix and suffix, in the order of their first name.
  std::vector<std::pair<std::string, std::string>> order;
  std::map<std::pair<std::string, std::string>, std::vector<std::string>> groups;
  for (const std::string& name : names) {
    NumberedName split = SplitLastNumber(name);
    auto key = split.digits.empty() ? std::make_pair(name, std::string("\n"))
                                    : std::make_pair(split.prefix, split.suffix);
    auto [it, added] = groups.try_emplace(key);
    if (added) order.push_back(key);
    if (!split.digits.empty()) it->second.push_back(split.digits);
  }
  std::string out;
  for (const auto& key : order) {
    const std::vector<std::string>& numbers = groups[key];
    if (!out.empty()) out += ',';
    if (numbers.empty()) {
      out += key.first;
    } else if (numbers.size() == 1) {
      out += key.first + numbers[0] + key.second;
    } else {
      out += key.first + "[" + FoldNumbers(numbers) + "]" + key.second;
    }
  }
  return out;
}

}  // namespace pelmora_tool
