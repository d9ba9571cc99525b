// Fuzzes the known hosts file reader: the first byte picks how much of the input is the host
// looked up, the rest is the file. A found entry is a field of the file, never blank, and a file
// with that entry's line written after it still finds the first.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "pelmora/net/internal/known_hosts.h"

using pelmora::net_internal::FindKnownHost;
using pelmora::net_internal::KnownHostLine;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::size_t split = std::min<std::size_t>(data[0] % 32, input.size());
  const std::string_view host = input.substr(0, split);
  const std::string_view content = input.substr(split);
  const auto found = FindKnownHost(content, host);
  if (!found) return 0;
  PELMORA_FUZZ_CHECK(!host.empty() && !found->fingerprint.empty());
  PELMORA_FUZZ_CHECK(content.find(found->fingerprint) != std::string_view::npos);
  PELMORA_FUZZ_CHECK(found->line >= 1);
  const auto again = FindKnownHost(std::string(content) + "\n" +
                                       KnownHostLine(host, "SHA256:new"), host);
  PELMORA_FUZZ_CHECK(again && again->line == found->line);
  return 0;
}
