#include "pelmorad/tls_listener.h"

#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/read.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/write.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error.h"
#include "pelmorad/audit.h"
#include "pelmorad/session.h"
#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

// Each direction moves up to this much per step: several TLS records per system call.
constexpr std::size_t kRelayBytes = 64 * 1024;
constexpr uint8_t kHandshakeRecord = 0x16;
constexpr uint8_t kFramedMarker = 0xFF;
constexpr unsigned char kSessionIdContext[] = "pelmorad";

using asio::redirect_error;
using asio::use_awaitable;
using Wait = asio::socket_base::wait_type;

std::string OpenSslReason() {
  unsigned long code = ERR_peek_last_error();
  const char* reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
  ERR_clear_error();
  return reason != nullptr ? reason : "the connection ended";
}

// Any client certificate passes the handshake: it is judged by its fingerprint at login.
int AcceptAnyCertificate(int, X509_STORE_CTX*) { return 1; }

// One TLS connection: the TCP socket with its TLS session, and the relay's end of the pair.
struct Relay {
  explicit Relay(asio::ip::tcp::socket socket) : tcp(std::move(socket)) {}
  ~Relay() { SSL_free(ssl); }

  void CloseAll() {
    asio::error_code ignored;
    tcp.close(ignored);
    if (pair) pair->close(ignored);
  }

  asio::ip::tcp::socket tcp;
  std::optional<Session::Socket> pair;
  SSL* ssl = nullptr;
  bool timed_out = false;
};

// Puts a buffer of kRelayBytes between the TLS session's records and the TCP socket, so that the
// records of one relay step go out in one send (the relay flushes it after each step) instead of
// one send and one TCP segment each.
bool BufferWrites(SSL* ssl) {
  BIO* socket = SSL_get_rbio(ssl);
  BIO* buffer = BIO_new(BIO_f_buffer());
  if (buffer == nullptr || BIO_set_write_buffer_size(buffer, kRelayBytes) != 1 ||
      BIO_up_ref(socket) != 1) {
    BIO_free(buffer);
    return false;
  }
  SSL_set0_wbio(ssl, BIO_push(buffer, socket));
  return true;
}

// What an SSL call that did not complete waits for; nullopt when the connection is done (the
// reason is then on OpenSSL's error queue).
std::optional<Wait> WaitFor(SSL* ssl, int result) {
  switch (SSL_get_error(ssl, result)) {
    case SSL_ERROR_WANT_READ:
      return Wait::wait_read;
    case SSL_ERROR_WANT_WRITE:
      return Wait::wait_write;
    default:
      return std::nullopt;
  }
}

// Client to session: decrypts what has arrived (up to kRelayBytes) and writes it to the pair.
asio::awaitable<void> ToSession(std::shared_ptr<Relay> relay) {
  std::vector<uint8_t> buffer(kRelayBytes);
  for (;;) {
    std::size_t filled = 0;
    std::optional<Wait> wait;
    bool ended = false;
    while (filled < buffer.size()) {
      std::size_t got = 0;
      int result = SSL_read_ex(relay->ssl, buffer.data() + filled, buffer.size() - filled, &got);
      if (result == 1) {
        filled += got;
        continue;
      }
      wait = WaitFor(relay->ssl, result);
      ended = !wait;
      break;
    }
    asio::error_code error;
    if (filled > 0) {
      co_await asio::async_write(*relay->pair, asio::buffer(buffer.data(), filled),
                                 redirect_error(use_awaitable, error));
    }
    if (ended || error) break;
    if (wait) {
      co_await relay->tcp.async_wait(*wait, redirect_error(use_awaitable, error));
      if (error) break;
    }
  }
  ERR_clear_error();
  relay->CloseAll();
}

// Session to client: encrypts what the session wrote; at its end, a close notification.
asio::awaitable<void> ToClient(std::shared_ptr<Relay> relay) {
  std::vector<uint8_t> buffer(kRelayBytes);
  for (bool sound = true; sound;) {
    asio::error_code error;
    std::size_t size = co_await relay->pair->async_read_some(asio::buffer(buffer),
                                                             redirect_error(use_awaitable, error));
    if (error) {
      if (relay->tcp.is_open()) SSL_shutdown(relay->ssl);  // one try: the session has ended
      break;
    }
    for (std::size_t offset = 0; offset < size && sound;) {
      std::size_t written = 0;
      int result = SSL_write_ex(relay->ssl, buffer.data() + offset, size - offset, &written);
      if (result == 1) {
        offset += written;
        continue;
      }
      std::optional<Wait> wait = WaitFor(relay->ssl, result);
      if (wait) co_await relay->tcp.async_wait(*wait, redirect_error(use_awaitable, error));
      sound = wait && !error;
    }
    // The records of this step leave together.
    BIO* out = SSL_get_wbio(relay->ssl);
    while (sound && BIO_flush(out) <= 0) {
      sound = BIO_should_retry(out) != 0;
      if (sound)
        co_await relay->tcp.async_wait(Wait::wait_write, redirect_error(use_awaitable, error));
      sound = sound && !error;
    }
  }
  ERR_clear_error();
  relay->CloseAll();
}

// A plain client's login message on the TLS port: answered with a login failure that says why.
asio::awaitable<void> AnswerPlainClient(std::shared_ptr<Relay> relay, const std::string& client) {
  std::vector<uint8_t> packet(pelmora::admin::kPacketSize);
  asio::error_code error;
  co_await asio::async_read(relay->tcp, asio::buffer(packet), redirect_error(use_awaitable, error));
  Audit({client, "", -1, "refused: a plain client on the TLS port", kAccessDenied});
  if (error) co_return;
  int32_t sequence = static_cast<int32_t>(packet[3] | (packet[4] << 8) | (packet[5] << 16) |
                                          (static_cast<uint32_t>(packet[6]) << 24));
  std::vector<uint8_t> reply = pelmora::admin::BuildFramedPacket(
      sequence, pelmora::admin::BuildResultReply(false, kLogonFailure, kPlainClientOnTlsPort));
  co_await asio::async_write(relay->tcp, asio::buffer(reply), redirect_error(use_awaitable, error));
}

asio::awaitable<void> ServeConnection(ServiceContext& context, SSL_CTX* ssl_context,
                                      asio::ip::tcp::socket socket) {
  asio::error_code error;
  const asio::ip::tcp::endpoint peer = socket.remote_endpoint(error);
  if (error || !Session::Admit(context, peer)) co_return;
  const std::string client = EndpointText(peer);
  const auto accepted = asio::steady_timer::clock_type::now();
  // Counted as not logged in until the session takes over.
  struct PreLogin {
    int& count;
    bool counted = true;
    explicit PreLogin(int& counter) : count(counter) { count += 1; }
    void Leave() {
      if (counted) count -= 1;
      counted = false;
    }
    ~PreLogin() { Leave(); }
  } pre_login(context.unauthenticated);

  auto relay = std::make_shared<Relay>(std::move(socket));
  relay->tcp.non_blocking(true, error);
  // A reply is often written as more than one record (the handshake's tickets, a size message
  // and its block): with Nagle's algorithm the later ones would wait for the client's delayed
  // acknowledgement of the first, 40 ms per exchange.
  relay->tcp.set_option(asio::ip::tcp::no_delay(true), error);
  asio::steady_timer deadline(
      context.io,
      accepted + std::chrono::seconds(context.runtime->config.limits.login_grace_seconds));
  // Audited before the close, so the line is there when the client sees the end.
  deadline.async_wait([relay, client](const asio::error_code& expired) {
    if (expired) return;
    relay->timed_out = true;
    Audit({client, "", -1, "closed: no TLS handshake within the login grace time", kTimeout});
    relay->CloseAll();
  });
  auto fail = [&](const std::string& why) {
    if (!relay->timed_out) Audit({client, "", -1, "closed: " + why, kInvalidParameter});
  };

  co_await relay->tcp.async_wait(Wait::wait_read, redirect_error(use_awaitable, error));
  uint8_t first = 0;
  if (error || ::recv(relay->tcp.native_handle(), &first, 1, MSG_PEEK) != 1) {
    fail("the client left before its TLS handshake");
    co_return;
  }
  if (first == kFramedMarker) {
    co_await AnswerPlainClient(relay, client);
    co_return;
  }
  if (first != kHandshakeRecord) {
    fail("not a TLS handshake");
    co_return;
  }

  relay->ssl = SSL_new(ssl_context);
  if (relay->ssl == nullptr || SSL_set_fd(relay->ssl, relay->tcp.native_handle()) != 1) {
    fail("no TLS session: " + OpenSslReason());
    co_return;
  }
  for (;;) {
    int result = SSL_accept(relay->ssl);
    if (result == 1) break;
    std::optional<Wait> wait = WaitFor(relay->ssl, result);
    if (wait) co_await relay->tcp.async_wait(*wait, redirect_error(use_awaitable, error));
    if (!wait || error) {
      fail("TLS handshake failed: " + OpenSslReason());
      co_return;
    }
  }
  deadline.cancel();
  if (!BufferWrites(relay->ssl)) {
    fail("no TLS session: " + OpenSslReason());
    co_return;
  }
  std::string fingerprint;
  if (X509* certificate = SSL_get0_peer_certificate(relay->ssl)) {
    fingerprint = CertificateFingerprintOf(certificate);
  }

  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    fail("no socket pair for the session");
    co_return;
  }
  const asio::generic::stream_protocol local(AF_UNIX, 0);
  Session::Socket session_end(context.io, local, ends[0]);
  relay->pair.emplace(context.io, local, ends[1]);
  pre_login.Leave();
  Session::Start(context, std::move(session_end),
                 Connection{.peer = peer,
                            .tls = true,
                            .client_fingerprint = fingerprint,
                            .accepted = accepted,
                            .admitted = true});
  asio::co_spawn(context.io, ToSession(relay), asio::detached);
  asio::co_spawn(context.io, ToClient(relay), asio::detached);
}

}  // namespace

TlsListener::TlsListener(const TlsIdentity& identity) : fingerprint_(identity.fingerprint) {
  context_ = SSL_CTX_new(TLS_server_method());
  bool usable =
      context_ != nullptr && SSL_CTX_set_min_proto_version(context_, TLS1_3_VERSION) == 1 &&
      SSL_CTX_set_max_proto_version(context_, TLS1_3_VERSION) == 1 &&
      SSL_CTX_use_certificate_chain_file(context_, identity.certificate_path.c_str()) == 1 &&
      SSL_CTX_use_PrivateKey_file(context_, identity.key_path.c_str(), SSL_FILETYPE_PEM) == 1 &&
      SSL_CTX_check_private_key(context_) == 1 &&
      SSL_CTX_set_session_id_context(context_, kSessionIdContext, sizeof(kSessionIdContext) - 1) ==
          1;
  if (!usable) {
    std::string reason = OpenSslReason();
    SSL_CTX_free(context_);
    throw pelmora::Error(2,
                         fmt::format("cannot use the TLS certificate {} with the key {}: {}",
                                     identity.certificate_path, identity.key_path, reason),
                         "pelmorad");
  }
  SSL_CTX_set_options(context_, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(context_, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                 SSL_MODE_RELEASE_BUFFERS);
  // Each receive takes up to a relay step of records; the buffer is given back while empty.
  SSL_CTX_set_read_ahead(context_, 1);
  SSL_CTX_set_default_read_buffer_len(context_, kRelayBytes);
  SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, AcceptAnyCertificate);
  // No session tickets: a resumed session would skip the certificate the client pins, and the
  // client never resumes, so they were two records and two encryptions of waste per connection.
  SSL_CTX_set_num_tickets(context_, 0);
  SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
}

TlsListener::~TlsListener() { SSL_CTX_free(context_); }

void TlsListener::Serve(ServiceContext& context, asio::ip::tcp::socket socket) {
  asio::co_spawn(context.io, ServeConnection(context, context_, std::move(socket)), asio::detached);
}

}  // namespace pelmorad
