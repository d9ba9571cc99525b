// The known hosts file of the TLS transport: one "host:port SHA256:..." entry per line.
//
// Blank lines and lines starting with '#' are skipped; the two fields are separated by spaces or
// tabs, anything after the second field is ignored, and a line without two fields is skipped.
// Lines are numbered from 1, counting every line of the file.
#ifndef PELMORA_NET_INTERNAL_KNOWN_HOSTS_H_
#define PELMORA_NET_INTERNAL_KNOWN_HOSTS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pelmora::net_internal {

struct KnownHost {
  std::string fingerprint;
  int32_t line = 0;
};

// The first entry for `host_port` ("host:port", compared exactly) in the file's `content`.
std::optional<KnownHost> FindKnownHost(std::string_view content, std::string_view host_port);

// The line that records `host_port` with `fingerprint`, ending in '\n'.
std::string KnownHostLine(std::string_view host_port, std::string_view fingerprint);

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_KNOWN_HOSTS_H_
