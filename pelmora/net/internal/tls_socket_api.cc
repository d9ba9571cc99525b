// The TLS socket layer's session: the handshake, and the sends, receives, waits and close that
// go through it (the server's identity checks are in tls_identity.cc, the BIO over the layer
// below in tls_channel_bio.cc).
#include "pelmora/net/internal/tls_socket_api.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "pelmora/net/internal/tls_channel_bio.h"

namespace pelmora {
namespace net_internal {
namespace {

using Clock = std::chrono::steady_clock;

// The session's buffer for bytes read ahead from the socket: several full records.
constexpr size_t kReadBuffer = 256 * 1024;

// The text of the oldest error on OpenSSL's queue of this thread, or `fallback` when it is empty.
std::string OpenSslReason(std::string_view fallback) {
  const unsigned long code = ERR_peek_error();
  if (code == 0) return std::string(fallback);
  const char* reason = ERR_reason_error_string(code);
  return reason != nullptr ? reason : std::string(fallback);
}

bool IsAddress(const std::string& host) {
  in_addr address{};
  return ::inet_pton(AF_INET, host.c_str(), &address) == 1;
}

// The number and text of a certificate the CA file check refused.
int32_t VerifyFailure(long result, std::string& message) {
  message =
      std::string("The server's certificate was refused: ") + X509_verify_cert_error_string(result);
  switch (result) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return tlsCertificateDateInvalid;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return tlsCertificateNameInvalid;
    default:
      return tlsCertificateNotTrusted;
  }
}

}  // namespace

struct TlsSocketApi::Session {
  ~Session() {
    SSL_free(ssl);
    SSL_CTX_free(context);
  }
  SSL_CTX* context = nullptr;
  SSL* ssl = nullptr;
  int fd = -1;
  // False once a fatal error has ended the session: no close notification is sent then.
  bool sound = true;
  // The end of the stream (or its failure) met by a receive that returned bytes before it.
  std::optional<SocketResult> end;
};

TlsSocketApi::TlsSocketApi(std::shared_ptr<SocketApi> below, TlsClientSettings settings)
    : below_(std::move(below)), settings_(std::move(settings)) {}

TlsSocketApi::~TlsSocketApi() = default;

bool TlsSocketApi::Carries(int fd) const { return session_ && session_->fd == fd; }

void TlsSocketApi::DropSession(bool notify) {
  if (!session_) return;
  if (notify && session_->sound) {
    ERR_clear_error();
    SSL_shutdown(session_->ssl);  // one attempt; the peer's answer is not awaited
  }
  session_.reset();
  ERR_clear_error();
}

int32_t TlsSocketApi::Handshake(int fd, const std::string& host, int32_t port, int32_t timeout_ms,
                                std::string& message) {
  DropSession(false);
  presented_.clear();
  const std::string host_port = host + ":" + std::to_string(port);
  if (settings_.fingerprint.empty() && settings_.ca_file.empty() && settings_.known_hosts.empty()) {
    message =
        "No check of the server's identity was given: set a fingerprint, a CA file or a "
        "known hosts file";
    return tlsCertificateNotTrusted;
  }
  ERR_clear_error();
  auto session = std::make_unique<Session>();
  session->fd = fd;
  session->context = SSL_CTX_new(TLS_client_method());
  if (session->context == nullptr) {
    message = "TLS is not available: " + OpenSslReason("no TLS method");
    return tlsChannelError;
  }
  SSL_CTX* context = session->context;
  SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
  SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  // Each receive from the socket takes as many records as have arrived (up to the buffer), not
  // a record header and then its body.
  SSL_CTX_set_read_ahead(context, 1);
  SSL_CTX_set_default_read_buffer_len(context, kReadBuffer);
  if (!settings_.ca_file.empty()) {
    if (SSL_CTX_load_verify_locations(context, settings_.ca_file.c_str(), nullptr) != 1) {
      message = "The CA file " + settings_.ca_file +
                " cannot be read: " + OpenSslReason("no certificates");
      return tlsCertificateNotTrusted;
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  }
  if (!settings_.client_certificate.empty() || !settings_.client_key.empty()) {
    if (settings_.client_certificate.empty() || settings_.client_key.empty() ||
        SSL_CTX_use_certificate_chain_file(context, settings_.client_certificate.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, settings_.client_key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(context) != 1) {
      message = "The client certificate \"" + settings_.client_certificate + "\" and key \"" +
                settings_.client_key +
                "\" cannot be used: " + OpenSslReason("both files are needed");
      return tlsClientCertificateInvalid;
    }
  }
  session->ssl = SSL_new(context);
  SSL* ssl = session->ssl;
  BIO* channel = ssl != nullptr ? NewChannelBio(below_.get(), fd) : nullptr;
  if (channel == nullptr) {
    message = "TLS is not available: " + OpenSslReason("no session");
    return tlsChannelError;
  }
  SSL_set_bio(ssl, channel, channel);
  const bool address = IsAddress(host);
  if (!address) SSL_set_tlsext_host_name(ssl, host.c_str());
  if (!settings_.ca_file.empty()) {
    if (address) {
      X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str());
    } else {
      SSL_set1_host(ssl, host.c_str());
    }
  }
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    message = "TLS is not available: the socket cannot be made non-blocking";
    return tlsChannelError;
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    ERR_clear_error();
    const int done = SSL_connect(ssl);
    if (done == 1) break;
    const int error = SSL_get_error(ssl, done);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
      const long verified = SSL_get_verify_result(ssl);
      if (!settings_.ca_file.empty() && verified != X509_V_OK) {
        return VerifyFailure(verified, message);
      }
      // A close in the middle of the handshake is said as such, not as OpenSSL's end of file.
      const std::string closed = "the server closed the connection";
      const bool ended = ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
      message = "The TLS handshake with " + host_port +
                " failed: " + (ended ? closed : OpenSslReason(closed)) +
                " (is it a plain administration port, or a server without TLS 1.3?)";
      return tlsChannelError;
    }
    int wait_ms = -1;
    if (timeout_ms > 0) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      wait_ms = static_cast<int>(std::max<int64_t>(left.count(), 0));
    }
    const SocketResult ready =
        below_->Poll(fd, error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, wait_ms);
    if (ready.error == EINTR) continue;
    if (!ready.ok() || ready.value == 0) {
      message = "The server " + host_port + " did not complete the TLS handshake within " +
                std::to_string(timeout_ms) +
                " ms (is it a plain administration port, or a server without TLS?)";
      return tlsChannelError;
    }
  }
  if (X509* certificate = SSL_get0_peer_certificate(ssl)) {
    unsigned char* der = nullptr;
    const int size = i2d_X509(certificate, &der);
    if (size > 0) presented_ = CertificateFingerprint({der, static_cast<size_t>(size)});
    OPENSSL_free(der);
  }
  session_ = std::move(session);
  const int32_t refused = CheckIdentity(host_port, message);
  if (refused != 0) DropSession(true);
  return refused;
}


// Writes records until everything is written or the socket is full: one call of the layer above
// (and one wait for the socket) per block instead of per record.
SocketResult TlsSocketApi::Send(int fd, const void* data, size_t size, int flags) {
  if (!Carries(fd)) return below_->Send(fd, data, size, flags);
  const auto* bytes = static_cast<const unsigned char*>(data);
  size_t total = 0;
  while (total < size) {
    ERR_clear_error();
    size_t written = 0;
    const int done = SSL_write_ex(session_->ssl, bytes + total, size - total, &written);
    if (done == 1) {
      total += written;
      continue;
    }
    const int error = SSL_get_error(session_->ssl, done);
    if (error != SSL_ERROR_WANT_WRITE && error != SSL_ERROR_WANT_READ) {
      session_->sound = false;
      // The records written count; the session's failure shows at the next send.
      if (total == 0) return SocketResult{-1, ECONNRESET};
    }
    break;
  }
  if (total > 0) return SocketResult{static_cast<int64_t>(total), 0};
  return SocketResult{-1, EAGAIN};
}

// Takes every record that has arrived, up to `size` bytes: a short count means the socket has
// nothing more for now, as on a plain socket. An end or a failure met after some bytes is kept
// for the next call.
SocketResult TlsSocketApi::Recv(int fd, void* data, size_t size, int flags) {
  if (!Carries(fd)) return below_->Recv(fd, data, size, flags);
  if (session_->end) return *std::exchange(session_->end, std::nullopt);
  auto* bytes = static_cast<unsigned char*>(data);
  size_t total = 0;
  while (total < size) {
    ERR_clear_error();
    size_t got = 0;
    const int done = SSL_read_ex(session_->ssl, bytes + total, size - total, &got);
    if (done == 1) {
      total += got;
      continue;
    }
    const int error = SSL_get_error(session_->ssl, done);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) break;
    SocketResult end{0, 0};
    if (error != SSL_ERROR_ZERO_RETURN) {
      session_->sound = false;
      // A close without the close notification ends the stream as a plain close does; the
      // framing above counts its bytes, so a cut stream is still seen as cut.
      if (ERR_GET_REASON(ERR_peek_error()) != SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        end = SocketResult{-1, ECONNRESET};
      }
    }
    if (total == 0) return end;
    session_->end = end;
    break;
  }
  if (total > 0 || size == 0) return SocketResult{static_cast<int64_t>(total), 0};
  return SocketResult{-1, EAGAIN};
}

SocketResult TlsSocketApi::Poll(int fd, short events, int timeout_ms) {
  if (!Carries(fd) || (events & POLLIN) == 0) return below_->Poll(fd, events, timeout_ms);
  if (session_->end) return SocketResult{POLLIN, 0};
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  // Whether application data can be read without waiting; false when only part of a record (or
  // records without any, such as session tickets, which are consumed) is there.
  auto readable = [this] {
    ERR_clear_error();
    unsigned char byte = 0;
    size_t got = 0;
    const int done = SSL_peek_ex(session_->ssl, &byte, 1, &got);
    return done == 1 || SSL_get_error(session_->ssl, done) != SSL_ERROR_WANT_READ;
  };
  for (;;) {
    // Bytes read ahead from the socket wait in the session, where poll() cannot see them.
    if (SSL_has_pending(session_->ssl) == 1 && readable()) return SocketResult{POLLIN, 0};
    int wait_ms = timeout_ms;
    if (timeout_ms > 0) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      wait_ms = static_cast<int>(std::max<int64_t>(left.count(), 0));
    }
    SocketResult ready = below_->Poll(fd, events, wait_ms);
    if (!ready.ok() || ready.value == 0 || (ready.value & POLLIN) == 0) return ready;
    if (readable()) return ready;
    if (timeout_ms == 0) return SocketResult{0, 0};
  }
}

SocketResult TlsSocketApi::Close(int fd) {
  if (Carries(fd)) DropSession(true);
  return below_->Close(fd);
}

SocketResult TlsSocketApi::Socket(int type, int protocol) { return below_->Socket(type, protocol); }
SocketResult TlsSocketApi::Connect(int fd, const Ipv4Endpoint& to) {
  return below_->Connect(fd, to);
}
SocketResult TlsSocketApi::Bind(int fd, const Ipv4Endpoint& at) { return below_->Bind(fd, at); }
SocketResult TlsSocketApi::Listen(int fd, int backlog) { return below_->Listen(fd, backlog); }
SocketResult TlsSocketApi::Accept(int fd, Ipv4Endpoint* peer) { return below_->Accept(fd, peer); }
SocketResult TlsSocketApi::GetSockOpt(int fd, int level, int name, void* data, socklen_t* size) {
  return below_->GetSockOpt(fd, level, name, data, size);
}
SocketResult TlsSocketApi::SetSockOpt(int fd, int level, int name, const void* data,
                                      socklen_t size) {
  return below_->SetSockOpt(fd, level, name, data, size);
}
SocketResult TlsSocketApi::LocalEndpoint(int fd, Ipv4Endpoint& at) {
  return below_->LocalEndpoint(fd, at);
}
SocketResult TlsSocketApi::ResolveIPv4(const std::string& name) {
  return below_->ResolveIPv4(name);
}
SocketResult TlsSocketApi::HostName(std::string& name) { return below_->HostName(name); }

}  // namespace net_internal
}  // namespace pelmora
