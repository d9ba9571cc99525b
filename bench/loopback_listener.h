// A listening TCP socket on a free loopback port, for the benchmarks' peers.
#ifndef PELMORA_BENCH_LOOPBACK_LISTENER_H_
#define PELMORA_BENCH_LOOPBACK_LISTENER_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace pelmora::bench {

// Opens a socket listening on 127.0.0.1 with a port the kernel chooses; `address` receives the
// bound address. Returns the listening descriptor (close-on-exec), or -1 on failure.
inline int ListenOnLoopback(sockaddr_in& address) {
  int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) return -1;
  address = sockaddr_in{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::listen(listener, 1) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return -1;
  }
  return listener;
}

}  // namespace pelmora::bench

#endif  // PELMORA_BENCH_LOOPBACK_LISTENER_H_
