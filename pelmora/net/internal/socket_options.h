// Socket options by their published numbers, read and written on the platform's sockets.
//
// Callers name options with the published level and option numbers (SOL_SOCKET 65535,
// SO_KEEPALIVE 8, SO_LINGER 128, SO_DONTLINGER -129, TCP_NODELAY 1...). The platform numbers
// differ, and so do a few value layouts, so each published option is translated here:
// SO_LINGER travels as one 32-bit value (on/off in the low 16 bits, seconds in the high 16),
// SO_DONTLINGER as the opposite of the linger switch, SO_SNDTIMEO/SO_RCVTIMEO as milliseconds,
// SO_SNDBUF/SO_RCVBUF as the size asked for (the platform reports twice that), SO_ERROR as a
// Windows Sockets number. An option or level without a counterpart fails with ENOPROTOOPT.
#ifndef PELMORA_NET_INTERNAL_SOCKET_OPTIONS_H_
#define PELMORA_NET_INTERNAL_SOCKET_OPTIONS_H_

#include <cstdint>

#include "pelmora/net/internal/socket_api.h"

namespace pelmora::net_internal {

// Reads the published option (`level`, `name`) of `fd` into `value`; on failure `value` is
// untouched and the result carries the errno.
SocketResult ReadSocketOption(SocketApi& api, int fd, int32_t level, int32_t name, int32_t& value);

// Writes `value` to the published option (`level`, `name`) of `fd`. For SO_LINGER and
// SO_DONTLINGER only the low 16 bits of `value` are used and the linger seconds are kept.
SocketResult WriteSocketOption(SocketApi& api, int fd, int32_t level, int32_t name, int32_t value);

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_SOCKET_OPTIONS_H_
