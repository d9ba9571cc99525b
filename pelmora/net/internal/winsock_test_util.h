// Helpers shared by the WinSock tests (not part of the library).
#ifndef PELMORA_NET_INTERNAL_WINSOCK_TEST_UTIL_H_
#define PELMORA_NET_INTERNAL_WINSOCK_TEST_UTIL_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "pelmora/net/winsock.h"

namespace pelmora::net_internal {

using Bytes = std::vector<uint8_t>;

// `n` bytes of a pattern that differs at every offset within a 251-byte period.
inline Bytes Pattern(size_t n, uint8_t seed = 0) {
  Bytes bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>((i + seed) % 251);
  return bytes;
}

// The port a socket is bound to (host byte order), 0 when it cannot be read.
inline uint16_t BoundPort(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
  return ntohs(address.sin_port);
}

// Whether `fd` is an open descriptor.
inline bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// Whether `fd` is marked close-on-exec.
inline bool IsCloseOnExec(int fd) { return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

// Connects `socket` to 127.0.0.1:`port`.
inline void ConnectTo(WinSock& socket, uint16_t port) {
  socket.SetRemoteHost("127.0.0.1");
  socket.SetRemotePort(port);
  socket.Connect();
}

// Makes `server` listen on a free loopback-reachable port and returns that port.
inline uint16_t ListenOnFreePort(WinSock& server) {
  server.SetLocalPort(0);
  server.Listen();
  return BoundPort(server.SocketHandle());
}

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_WINSOCK_TEST_UTIL_H_
