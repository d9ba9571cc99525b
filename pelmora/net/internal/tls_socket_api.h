// A socket layer that carries a connection's bytes through TLS 1.3.
//
// TlsSocketApi forwards every call to the layer below, except that once Handshake has succeeded
// on a descriptor, Send, Recv and Poll on it go through the TLS session: WinSock (and everything
// built on it) reads and writes the same bytes as on a plain socket. The descriptor is switched
// to non-blocking mode; Recv and Send report EAGAIN where TLS needs more bytes first. Recv
// takes every record that has arrived (the session reads ahead from the socket), Send writes
// records until the block is sent or the socket is full. Poll for
// POLLIN waits until application data is there (records without any, such as session tickets,
// are consumed while waiting). Close ends the session with a close notification when it is still
// sound. One object serves one connection at a time.
#ifndef PELMORA_NET_INTERNAL_TLS_SOCKET_API_H_
#define PELMORA_NET_INTERNAL_TLS_SOCKET_API_H_

#include <cstdint>
#include <memory>
#include <string>

#include "pelmora/net/internal/socket_api.h"
#include "pelmora/net/tls_client.h"

namespace pelmora::net_internal {

class TlsSocketApi final : public SocketApi {
 public:
  TlsSocketApi(std::shared_ptr<SocketApi> below, TlsClientSettings settings);
  ~TlsSocketApi() override;
  TlsSocketApi(const TlsSocketApi&) = delete;
  TlsSocketApi& operator=(const TlsSocketApi&) = delete;

  // Runs the TLS handshake on the connected descriptor `fd` for `host` (the name or address the
  // caller connected to) and `port`, then checks the server's identity as the settings ask. Waits
  // at most `timeout_ms` for the handshake (0: without limit). 0 on success; otherwise a
  // TlsErrorConstants number with the reason in `message`, and the session is dropped (the
  // descriptor stays open for the caller to close).
  int32_t Handshake(int fd, const std::string& host, int32_t port, int32_t timeout_ms,
                    std::string& message);
  // The fingerprint of the certificate the server presented in the last handshake ("" before).
  const std::string& PresentedFingerprint() const { return presented_; }

  SocketResult Socket(int type, int protocol) override;
  SocketResult Connect(int fd, const Ipv4Endpoint& to) override;
  SocketResult Bind(int fd, const Ipv4Endpoint& at) override;
  SocketResult Listen(int fd, int backlog) override;
  SocketResult Accept(int fd, Ipv4Endpoint* peer) override;
  SocketResult Send(int fd, const void* data, size_t size, int flags) override;
  SocketResult Recv(int fd, void* data, size_t size, int flags) override;
  SocketResult Poll(int fd, short events, int timeout_ms) override;
  SocketResult GetSockOpt(int fd, int level, int name, void* data, socklen_t* size) override;
  SocketResult SetSockOpt(int fd, int level, int name, const void* data, socklen_t size) override;
  SocketResult LocalEndpoint(int fd, Ipv4Endpoint& at) override;
  SocketResult Close(int fd) override;
  SocketResult ResolveIPv4(const std::string& name) override;
  SocketResult HostName(std::string& name) override;

 private:
  struct Session;

  bool Carries(int fd) const;
  int32_t CheckIdentity(const std::string& host_port, std::string& message);
  int32_t CheckKnownHosts(const std::string& host_port, std::string& message);
  void DropSession(bool notify);

  std::shared_ptr<SocketApi> below_;
  TlsClientSettings settings_;
  std::unique_ptr<Session> session_;
  std::string presented_;
};

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_TLS_SOCKET_API_H_
