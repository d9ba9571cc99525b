// The socket layer that the network classes call instead of the system directly.
//
// SocketApi is a small interface over the POSIX socket calls the library needs (IPv4 only). Each
// call returns a SocketResult holding the call's value and the errno (or, for ResolveIPv4, the
// getaddrinfo EAI_* code) that it failed with, read before anything else can change it. The
// system implementation (SystemSocketApi()) creates every socket close-on-exec, sends with
// MSG_NOSIGNAL and retries calls that a signal interrupted; tests substitute a fault-injecting
// layer (pelmora/testing/fault_socket_api.h).
#ifndef PELMORA_NET_INTERNAL_SOCKET_API_H_
#define PELMORA_NET_INTERNAL_SOCKET_API_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace pelmora::net_internal {

// A call's value (a descriptor, a byte count, poll's revents...) and its error: 0 on success,
// otherwise the errno value (EAI_* code for ResolveIPv4) and value -1.
struct SocketResult {
  int64_t value = 0;
  int error = 0;

  bool ok() const { return error == 0; }
};

// An IPv4 address with its port, both in network byte order.
struct Ipv4Endpoint {
  uint32_t address = 0;
  uint16_t port = 0;
};

class SocketApi {
 public:
  virtual ~SocketApi() = default;

  // socket(AF_INET, type | SOCK_CLOEXEC, protocol): the new descriptor.
  virtual SocketResult Socket(int type, int protocol) = 0;
  // connect() to `to`; blocks until connected or refused.
  virtual SocketResult Connect(int fd, const Ipv4Endpoint& to) = 0;
  // bind() to `at`.
  virtual SocketResult Bind(int fd, const Ipv4Endpoint& at) = 0;
  // listen() with `backlog`.
  virtual SocketResult Listen(int fd, int backlog) = 0;
  // accept4(..., SOCK_CLOEXEC): blocks until a connection comes; the new descriptor. `peer`
  // receives the peer's address when not null.
  virtual SocketResult Accept(int fd, Ipv4Endpoint* peer) = 0;
  // send() with MSG_NOSIGNAL added to `flags`: the number of bytes taken (may be fewer).
  virtual SocketResult Send(int fd, const void* data, size_t size, int flags) = 0;
  // recv(): the number of bytes received, 0 when the peer has closed.
  virtual SocketResult Recv(int fd, void* data, size_t size, int flags) = 0;
  // poll() on one descriptor for `events`, at most `timeout_ms` (negative: without limit). The
  // value is the revents (0 on time-out).
  virtual SocketResult Poll(int fd, short events, int timeout_ms) = 0;
  // getsockopt()/setsockopt(); `size` is in/out for GetSockOpt.
  virtual SocketResult GetSockOpt(int fd, int level, int name, void* data, socklen_t* size) = 0;
  virtual SocketResult SetSockOpt(int fd, int level, int name, const void* data,
                                  socklen_t size) = 0;
  // getsockname(): the local address the socket is bound to.
  virtual SocketResult LocalEndpoint(int fd, Ipv4Endpoint& at) = 0;
  // close().
  virtual SocketResult Close(int fd) = 0;
  // Looks `name` up (getaddrinfo, AF_INET): value = the first IPv4 address in network byte order
  // (as an unsigned 32-bit number); error = the EAI_* code on failure.
  virtual SocketResult ResolveIPv4(const std::string& name) = 0;
  // gethostname(): this machine's name into `name`.
  virtual SocketResult HostName(std::string& name) = 0;
};

// The system's socket layer; one shared instance for the process.
std::shared_ptr<SocketApi> SystemSocketApi();

// inet_addr(): a dotted address ("10.1.2.3", also the short and hexadecimal forms) in network byte
// order, or INADDR_NONE (all ones) when `text` is not one. Makes no system call.
uint32_t ParseDottedAddress(const std::string& text);

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_SOCKET_API_H_
