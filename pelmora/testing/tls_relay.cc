#include "pelmora/testing/tls_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>

namespace pelmora::testing {
namespace {

using ContextPtr = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using SslPtr = std::unique_ptr<SSL, decltype(&SSL_free)>;

sockaddr_in LoopbackAddress(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

int ConnectToLoopback(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = LoopbackAddress(port);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    return fd;
  }
  if (fd >= 0) ::close(fd);
  return -1;
}

bool SendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

}  // namespace

TlsRelay::TlsRelay(std::string pem, uint16_t target_port)
    : pem_(std::move(pem)), target_port_(target_port) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof(address);
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    if (listener_ >= 0) ::close(listener_);
    throw std::runtime_error("TLS relay: cannot listen");
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

TlsRelay::~TlsRelay() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    // Shutting the sockets down wakes every thread blocked on them.
    ::shutdown(listener_, SHUT_RDWR);
    for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
  }
  acceptor_.join();
  for (std::thread& worker : workers_) worker.join();
  ::close(listener_);
}

void TlsRelay::AcceptLoop() {
  for (;;) {
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    std::lock_guard lock(mutex_);
    if (client < 0 || stopping_) {
      if (client >= 0) ::close(client);
      return;
    }
    open_.push_back(client);
    workers_.emplace_back([this, client] { Serve(client); });
  }
}

void TlsRelay::Serve(int client) {
  // A client that leaves mid-write must not end the test program: SIGPIPE raised by this
  // thread's writes stays blocked here and is discarded with the thread.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  ContextPtr context(nullptr, &SSL_CTX_free);
  SslPtr ssl(nullptr, &SSL_free);
  int server = -1;
  bool ready = true;
  if (!pem_.empty()) {
    context.reset(SSL_CTX_new(TLS_server_method()));
    ready = context && SSL_CTX_use_certificate_chain_file(context.get(), pem_.c_str()) == 1 &&
            SSL_CTX_use_PrivateKey_file(context.get(), pem_.c_str(), SSL_FILETYPE_PEM) == 1;
    if (ready) ssl.reset(SSL_new(context.get()));
    ready = ssl && SSL_set_fd(ssl.get(), client) == 1 && SSL_accept(ssl.get()) == 1;
    if (!ready) {
      std::lock_guard lock(mutex_);
      ++failed_handshakes_;
    }
  }
  if (ready) server = ConnectToLoopback(target_port_);
  char buffer[16 * 1024];
  while (server >= 0) {
    const bool buffered = ssl && SSL_pending(ssl.get()) > 0;
    pollfd fds[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
    if (!buffered && ::poll(fds, 2, -1) < 0) break;
    if (buffered || fds[0].revents != 0) {
      const int got = ssl ? SSL_read(ssl.get(), buffer, sizeof(buffer))
                          : static_cast<int>(::recv(client, buffer, sizeof(buffer), 0));
      if (got <= 0) break;
      {
        std::lock_guard lock(mutex_);
        received_.append(buffer, static_cast<size_t>(got));
      }
      if (!SendAll(server, buffer, static_cast<size_t>(got))) break;
    }
    if (!buffered && fds[1].revents != 0) {
      const ssize_t got = ::recv(server, buffer, sizeof(buffer), 0);
      if (got <= 0) break;
      const bool sent = ssl ? SSL_write(ssl.get(), buffer, static_cast<int>(got)) == got
                            : SendAll(client, buffer, static_cast<size_t>(got));
      if (!sent) break;
    }
  }
  if (server >= 0) ::close(server);
  ssl.reset();
  ERR_clear_error();
  std::lock_guard lock(mutex_);
  // The descriptor is closed under the lock, so the destructor never shuts down a reused one.
  ::close(client);
  open_.erase(std::remove(open_.begin(), open_.end(), client), open_.end());
  ++ended_;
  changed_.notify_all();
}

std::string TlsRelay::Received() const {
  std::lock_guard lock(mutex_);
  return received_;
}

int TlsRelay::FailedHandshakes() const {
  std::lock_guard lock(mutex_);
  return failed_handshakes_;
}

bool TlsRelay::WaitForEndedConnections(int count, int milliseconds) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                           [&] { return ended_ >= count; });
}

}  // namespace pelmora::testing
