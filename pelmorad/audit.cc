#include "pelmorad/audit.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <mutex>

namespace pelmorad {
namespace {

std::string Quoted(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte == 0x7F) {
      out += fmt::format("\\x{:02x}", byte);
    } else {
      out += c;
    }
  }
  return out + '"';
}

void WriteLine(const std::string& line) {
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
  std::time_t now = std::time(nullptr);
  std::tm fields{};
  if (utc) {
    ::gmtime_r(&now, &fields);
  } else {
    ::localtime_r(&now, &fields);
  }
  char text[64] = {};
  std::strftime(text, sizeof(text), pattern, &fields);
  return text;
}

std::string AuditLine(const AuditEntry& entry) {
  return fmt::format("{} audit client={} account={} code={} path={} result={}",
                     FormatNow("%Y-%m-%dT%H:%M:%SZ", true), entry.client, Quoted(entry.account),
                     entry.code, Quoted(entry.path), entry.result);
}

void Audit(const AuditEntry& entry) { WriteLine(AuditLine(entry) + '\n'); }

void ServiceMessage(std::string_view text) { WriteLine(fmt::format("pelmorad: {}\n", text)); }

}  // namespace pelmorad
