#include "tests/service/cut_relay.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace pelmorad::testing {
namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

// Passes bytes both ways until `limit` bytes of the service's have gone to the client.
void Forward(int client, int service, std::size_t limit) {
  char buffer[16384];
  for (std::size_t passed = 0; passed < limit;) {
    pollfd fds[2] = {{client, POLLIN, 0}, {service, POLLIN, 0}};
    if (::poll(fds, 2, 20000) <= 0) return;
    if (fds[0].revents != 0) {
      ssize_t n = ::read(client, buffer, sizeof buffer);
      if (n <= 0 || ::write(service, buffer, static_cast<size_t>(n)) != n) return;
    }
    if (fds[1].revents != 0) {
      ssize_t n = ::read(service, buffer, std::min(sizeof buffer, limit - passed));
      if (n <= 0 || ::write(client, buffer, static_cast<size_t>(n)) != n) return;
      passed += static_cast<std::size_t>(n);
    }
  }
}

}  // namespace

CutRelay::CutRelay(int port, std::size_t limit) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::listen(listener_, 1);
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this, port, limit] { Relay(port, limit); });
}

CutRelay::~CutRelay() {
  ::shutdown(listener_, SHUT_RDWR);  // ends an accept still waiting
  thread_.join();
  ::close(listener_);
}

void CutRelay::Relay(int port, std::size_t limit) {
  pollfd waiting{listener_, POLLIN, 0};
  if (::poll(&waiting, 1, 20000) <= 0) return;
  int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) return;
  int service = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(port);
  if (::connect(service, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    Forward(client, service, limit);
  }
  ::close(service);
  ::close(client);
}

}  // namespace pelmorad::testing
