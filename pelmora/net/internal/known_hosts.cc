#include "pelmora/net/internal/known_hosts.h"

namespace pelmora::net_internal {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// The next field of `line` from `pos` on (empty when none is left); `pos` moves past it.
std::string_view NextField(std::string_view line, size_t& pos) {
  while (pos < line.size() && IsBlank(line[pos])) ++pos;
  const size_t start = pos;
  while (pos < line.size() && !IsBlank(line[pos])) ++pos;
  return line.substr(start, pos - start);
}

}  // namespace

std::optional<KnownHost> FindKnownHost(std::string_view content, std::string_view host_port) {
  int32_t number = 0;
  while (!content.empty()) {
    ++number;
    const size_t end = content.find('\n');
    const std::string_view line = content.substr(0, end);
    content = end == std::string_view::npos ? std::string_view() : content.substr(end + 1);
    size_t pos = 0;
    const std::string_view host = NextField(line, pos);
    if (host.empty() || host.front() == '#' || host != host_port) continue;
    const std::string_view fingerprint = NextField(line, pos);
    if (fingerprint.empty()) continue;
    return KnownHost{std::string(fingerprint), number};
  }
  return std::nullopt;
}

std::string KnownHostLine(std::string_view host_port, std::string_view fingerprint) {
  return std::string(host_port) + " " + std::string(fingerprint) + "\n";
}

}  // namespace pelmora::net_internal
