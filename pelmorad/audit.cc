#include "pelmorad/audit.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <iterator>
#include <mutex>

namespace pelmorad {
namespace {

// `time` formatted with strftime `pattern`, in UTC or in local time.
std::string FormatTime(std::time_t time, const char* pattern, bool utc) {
  std::tm fields{};
  if (utc) {
    ::gmtime_r(&time, &fields);
  } else {
    ::localtime_r(&time, &fields);
  }
  char text[64] = {};
  std::strftime(text, sizeof(text), pattern, &fields);
  return text;
}

// Appends `text` quoted, with quotes, backslashes and control characters escaped.
void AppendQuoted(fmt::memory_buffer& out, std::string_view text) {
  out.push_back('"');
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(c);
    } else if (byte < 0x20 || byte == 0x7F) {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", byte);
    } else {
      out.push_back(c);
    }
  }
  out.push_back('"');
}

// The line of `entry` with its line end (when `line_end`).
void AppendLine(fmt::memory_buffer& out, const AuditEntry& entry, bool line_end) {
  // The time's text changes once a second: formatted again only then, not for every request.
  struct Second {
    std::time_t time = -1;
    std::string text;
  };
  static thread_local Second second;
  std::time_t now = std::time(nullptr);
  if (now != second.time) {
    second.text = FormatTime(now, "%Y-%m-%dT%H:%M:%SZ", true);
    second.time = now;
  }
  fmt::format_to(std::back_inserter(out), "{} audit client={} account=", second.text, entry.client);
  AppendQuoted(out, entry.account);
  fmt::format_to(std::back_inserter(out), " code={} path=", entry.code);
  AppendQuoted(out, entry.path);
  fmt::format_to(std::back_inserter(out), " result={}", entry.result);
  if (line_end) out.push_back('\n');
}

void WriteLine(std::string_view line) {
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  std::string_view rest = line;
  while (!rest.empty()) {
    ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
    if (written <= 0) return;
    rest.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace

std::string FormatNow(const char* pattern, bool utc) {
  return FormatTime(std::time(nullptr), pattern, utc);
}

std::string AuditLine(const AuditEntry& entry) {
  fmt::memory_buffer line;
  AppendLine(line, entry, false);
  return fmt::to_string(line);
}

void Audit(const AuditEntry& entry) {
  fmt::memory_buffer line;
  AppendLine(line, entry, true);
  WriteLine(std::string_view(line.data(), line.size()));
}

void ServiceMessage(std::string_view text) { WriteLine(fmt::format("pelmorad: {}\n", text)); }

}  // namespace pelmorad
