// The one table from the platform's socket errors to Windows Sockets numbers.
//
// Socket failures are reported with their Windows Sockets numbers (10061 connection refused,
// 10060 timed out, 11001 host not found...). WsaErrorFromErrno maps an errno value from a socket
// call, WsaErrorFromResolver an EAI_* code from getaddrinfo.
//
//   WsaErrorFromErrno(ECONNREFUSED)  // 10061
//   WsaErrorFromResolver(EAI_NONAME) // 11001
#ifndef PELMORA_NET_INTERNAL_WSA_ERRORS_H_
#define PELMORA_NET_INTERNAL_WSA_ERRORS_H_

#include <cstdint>

namespace pelmora::net_internal {

// The Windows Sockets number an errno value stands for. EBADF (no such descriptor) becomes 10038
// (not a socket), what an invalid socket handle gives. EPIPE (sending after the peer has gone)
// becomes 10054, as the peer's reset is what a send there reports; ENOMEM becomes 10055. An errno
// without a Windows Sockets counterpart becomes 10022 (invalid argument); 0 stays 0.
int32_t WsaErrorFromErrno(int errno_value);

// The Windows Sockets number for a getaddrinfo result code: EAI_NONAME 11001, EAI_AGAIN 11002,
// EAI_FAIL 11003, EAI_NODATA/EAI_ADDRFAMILY 11004; EAI_SYSTEM is taken from `errno_value`. Other
// codes become 11003; 0 stays 0.
int32_t WsaErrorFromResolver(int eai_code, int errno_value = 0);

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_WSA_ERRORS_H_
