// The TLS front end of the listeners: TLS 1.3 ends here, in the service's main process, and the
// plaintext goes on through a unix socket pair whose other end is the session's socket, so the
// session (and whatever process it is later handed to) never knows which transport it runs on.
//
//   TlsListener tls(LoadOrCreateTlsIdentity(config));
//   tls.Serve(context, std::move(accepted_tcp_socket));
//
// Per connection: the connection limits are applied at accept and the handshake counts as a
// connection not yet logged in (it must end within the login grace time); a plain client's first
// message (a framed packet starts with 0xFF, a TLS handshake record with 0x16) is answered with a
// framed login failure that says the port speaks TLS; the handshake asks for an optional client
// certificate, accepts any and hands its fingerprint to the session; then one coroutine copies
// each direction until either side ends.
#ifndef PELMORAD_TLS_LISTENER_H_
#define PELMORAD_TLS_LISTENER_H_

#include <asio/ip/tcp.hpp>
#include <string>

#include "pelmorad/runtime.h"
#include "pelmorad/tls_identity.h"

struct ssl_ctx_st;

namespace pelmorad {

// The text a plain client receives in its login reply on a TLS port.
inline constexpr char kPlainClientOnTlsPort[] =
    "This port carries the administration protocol inside TLS only: connect with TLS";

class TlsListener {
 public:
  // Reads the certificate and key. Throws pelmora::Error 2 when they cannot be used together.
  explicit TlsListener(const TlsIdentity& identity);
  ~TlsListener();
  TlsListener(const TlsListener&) = delete;
  TlsListener& operator=(const TlsListener&) = delete;

  // Serves one accepted connection on the I/O thread; returns at once.
  void Serve(ServiceContext& context, asio::ip::tcp::socket socket);

  const std::string& fingerprint() const { return fingerprint_; }

 private:
  ssl_ctx_st* context_ = nullptr;
  std::string fingerprint_;
};

}  // namespace pelmorad

#endif  // PELMORAD_TLS_LISTENER_H_
