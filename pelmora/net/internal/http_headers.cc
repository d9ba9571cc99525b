#include "pelmora/net/internal/http_headers.h"

#include <algorithm>

#include "pelmora/net/internal/url_cracker.h"

namespace pelmora::net_internal {
namespace {

std::string_view WithoutLineEnd(std::string_view line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  return line;
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// The name of a "Name: value" line, blanks trimmed (empty without a colon).
std::string_view HeaderName(std::string_view line) {
  size_t colon = line.find(':');
  return colon == std::string_view::npos ? std::string_view() : Trimmed(line.substr(0, colon));
}

}  // namespace

void AddOrReplaceHeaders(std::vector<std::string>& lines, std::string_view caller_lines) {
  while (!caller_lines.empty()) {
    size_t end = caller_lines.find('\n');
    std::string_view line = WithoutLineEnd(caller_lines.substr(0, end));
    caller_lines =
        end == std::string_view::npos ? std::string_view() : caller_lines.substr(end + 1);
    std::string_view name = HeaderName(line);
    if (name.empty()) continue;
    std::string_view value = Trimmed(line.substr(line.find(':') + 1));
    std::string entry = std::string(name) + (value.empty() ? ":" : ": " + std::string(value));
    auto same = std::find_if(lines.begin(), lines.end(), [&](const std::string& existing) {
      return EqualsIgnoringCase(HeaderName(existing), name);
    });
    if (same != lines.end()) {
      *same = std::move(entry);
    } else {
      lines.push_back(std::move(entry));
    }
  }
}

int32_t ParseStatusCode(std::string_view status_line) {
  size_t space = status_line.find(' ');
  if (status_line.substr(0, 5) != "HTTP/" || space == std::string_view::npos) return 0;
  std::string_view code = status_line.substr(space + 1, 3);
  if (code.size() != 3) return 0;
  int32_t value = 0;
  for (char c : code) {
    if (c < '0' || c > '9') return 0;
    value = value * 10 + (c - '0');
  }
  bool ends = status_line.size() == space + 4 || status_line[space + 4] == ' ';
  return ends ? value : 0;
}

bool ResponseHeaders::AddLine(std::string_view line) {
  std::string_view text = WithoutLineEnd(line);
  if (text.substr(0, 5) == "HTTP/") {
    Clear();
    status_ = ParseStatusCode(text);
  } else if (text.empty()) {
    if (lines_.empty()) return false;
    ended_ = true;
    return true;
  } else if (text.front() == ' ' || text.front() == '\t' || ended_) {
    return false;  // folded continuation lines and trailers are not kept
  }
  lines_.emplace_back(text);
  return false;
}

void ResponseHeaders::Clear() {
  lines_.clear();
  status_ = 0;
  ended_ = false;
}

std::string ResponseHeaders::Raw() const {
  if (lines_.empty()) return {};
  std::string raw;
  for (const std::string& line : lines_) {
    raw += line;
    raw += "\r\n";
  }
  raw += "\r\n";
  return raw;
}

std::optional<std::string> ResponseHeaders::Find(std::string_view name, size_t index) const {
  for (size_t i = 0; i < lines_.size(); ++i) {
    std::string_view line = lines_[i];
    size_t colon = line.find(':');
    if (colon == std::string_view::npos || !EqualsIgnoringCase(Trimmed(line.substr(0, colon)), name)) {
      continue;
    }
    if (index-- == 0) return std::string(Trimmed(line.substr(colon + 1)));
  }
  return std::nullopt;
}

}  // namespace pelmora::net_internal
