#include "pelmora/net/internal/socket_api.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace pelmora::net_internal {
namespace {

// The result of a call that returns -1 and sets errno on failure; errno is read at once.
SocketResult FromCall(int64_t value) {
  if (value < 0) return SocketResult{-1, errno};
  return SocketResult{value, 0};
}

// Repeats `call` while a signal interrupts it.
template <typename Call>
SocketResult Retrying(Call call) {
  for (;;) {
    SocketResult result = FromCall(call());
    if (result.error != EINTR) return result;
  }
}

sockaddr_in ToSockaddr(const Ipv4Endpoint& endpoint) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = endpoint.port;
  address.sin_addr.s_addr = endpoint.address;
  return address;
}

class PosixSocketApi final : public SocketApi {
 public:
  SocketResult Socket(int type, int protocol) override {
    return FromCall(::socket(AF_INET, type | SOCK_CLOEXEC, protocol));
  }

  SocketResult Connect(int fd, const Ipv4Endpoint& to) override {
    sockaddr_in address = ToSockaddr(to);
    SocketResult result =
        FromCall(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    // An interrupted connect goes on in the background; wait for its outcome.
    if (result.error == EINTR) return FinishInterruptedConnect(fd);
    return result;
  }

  SocketResult Bind(int fd, const Ipv4Endpoint& at) override {
    sockaddr_in address = ToSockaddr(at);
    return FromCall(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  }

  SocketResult Listen(int fd, int backlog) override { return FromCall(::listen(fd, backlog)); }

  SocketResult Accept(int fd, Ipv4Endpoint* peer) override {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    SocketResult result = Retrying(
        [&] { return ::accept4(fd, reinterpret_cast<sockaddr*>(&address), &size, SOCK_CLOEXEC); });
    if (result.ok() && peer != nullptr) {
      *peer = Ipv4Endpoint{address.sin_addr.s_addr, address.sin_port};
    }
    return result;
  }

  SocketResult Send(int fd, const void* data, size_t size, int flags) override {
    return Retrying([&] { return ::send(fd, data, size, flags | MSG_NOSIGNAL); });
  }

  SocketResult Recv(int fd, void* data, size_t size, int flags) override {
    return Retrying([&] { return ::recv(fd, data, size, flags); });
  }

  SocketResult Poll(int fd, short events, int timeout_ms) override {
    pollfd entry{fd, events, 0};
    // An interrupted poll is reported as such; the caller restarts it with the time left.
    SocketResult result = FromCall(::poll(&entry, 1, timeout_ms < 0 ? -1 : timeout_ms));
    if (result.ok()) result.value = result.value == 0 ? 0 : entry.revents;
    return result;
  }

  SocketResult GetSockOpt(int fd, int level, int name, void* data, socklen_t* size) override {
    return FromCall(::getsockopt(fd, level, name, data, size));
  }

  SocketResult SetSockOpt(int fd, int level, int name, const void* data, socklen_t size) override {
    return FromCall(::setsockopt(fd, level, name, data, size));
  }

  SocketResult LocalEndpoint(int fd, Ipv4Endpoint& at) override {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    SocketResult result = FromCall(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
    if (result.ok()) at = Ipv4Endpoint{address.sin_addr.s_addr, address.sin_port};
    return result;
  }

  SocketResult Close(int fd) override { return FromCall(::close(fd)); }

  SocketResult ResolveIPv4(const std::string& name) override {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int code = ::getaddrinfo(name.c_str(), nullptr, &hints, &found);
    if (code == EAI_SYSTEM) code = errno == 0 ? EAI_FAIL : code;
    if (code != 0) return SocketResult{-1, code};
    if (found == nullptr || found->ai_addr == nullptr) {
      ::freeaddrinfo(found);
      return SocketResult{-1, EAI_NONAME};
    }
    uint32_t address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    ::freeaddrinfo(found);
    return SocketResult{static_cast<int64_t>(address), 0};
  }

  SocketResult HostName(std::string& name) override {
    char buffer[256] = {};
    SocketResult result = FromCall(::gethostname(buffer, sizeof(buffer) - 1));
    if (result.ok()) name.assign(buffer, ::strnlen(buffer, sizeof(buffer)));
    return result;
  }

 private:
  static SocketResult FinishInterruptedConnect(int fd) {
    pollfd entry{fd, POLLOUT, 0};
    SocketResult waited = Retrying([&] { return ::poll(&entry, 1, -1); });
    if (!waited.ok()) return waited;
    int error = 0;
    socklen_t size = sizeof(error);
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return FromCall(-1);
    return error == 0 ? SocketResult{} : SocketResult{-1, error};
  }
};

}  // namespace

std::shared_ptr<SocketApi> SystemSocketApi() {
  static const std::shared_ptr<SocketApi> api = std::make_shared<PosixSocketApi>();
  return api;
}

uint32_t ParseDottedAddress(const std::string& text) { return ::inet_addr(text.c_str()); }

}  // namespace pelmora::net_internal
