// The channel's transport and session: a new socket per transport (plain, or TLS whose server
// identity is checked before anything is sent), the login message, the time-outs and the close.
#include <string>

#include "pelmora/admin/internal/channel.h"
#include "pelmora/admin/wire.h"
#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"
#include "pelmora/net/internal/socket_api.h"
#include "pelmora/net/internal/tls_socket_api.h"

namespace pelmora::admin::internal {

Channel::Channel(int32_t timeout) : sequence_(kFirstSequenceNumber) {
  // Keep-alive is asked for before any socket exists; the socket object refuses it (no socket)
  // and that refusal is of no consequence, as it always was.
  (void)socket_.SetSocketOption(sckSOL_SOCKET, sckSO_KEEPALIVE, -1);
  socket_.SetReceiveTimeout(timeout);
  socket_.SetSendTimeout(timeout);
  // No caller can reach this socket, so its small reads may be served from a read-ahead buffer.
  socket_.SetReadAhead(true);
}

Channel::~Channel() {
  try {
    socket_.Disconnect();
  } catch (...) {
  }
}

int32_t Channel::timeout() const { return socket_.ReceiveTimeout(); }

// The session time-out bounds the client's own sends as well: a send that cannot get a byte onto
// a dead link for that long fails with 10060, as a reply that does not come does.
void Channel::set_timeout(int32_t value) {
  socket_.SetReceiveTimeout(value);
  socket_.SetSendTimeout(socket_.ReceiveTimeout());
}

std::string Channel::HandlePrefix() const {
  return "(" + std::to_string(socket_.SocketHandle()) + ")";
}

void Channel::SetSocketError(int32_t code) { error_.Set(code, socket_.GetErrorDescription(code)); }

net_internal::SocketApi* Channel::TlsSession() const { return tls_api_.get(); }

bool Channel::Open(std::string_view host, int32_t port) {
  UseTransport();
  try {
    socket_.SetRemoteHost(std::string(host));
    socket_.SetRemotePort(port);
    socket_.Connect();
  } catch (const Error& e) {
    error_.Set(e.Number(), e.Description());
    LogFailure(HandlePrefix() + "** Connected fail", "RFSO", "Connect");
    return false;
  }
  // A request is a size message followed at once by its block: without TCP_NODELAY the block
  // would wait for the acknowledgement of the size message (tens of milliseconds per request).
  (void)socket_.SetSocketOption(sckIPPROTO_TCP, sckTCP_NODELAY, 1);
  // Over TLS nothing, the credentials least of all, is sent before the server's identity holds.
  return !tls_api_ || StartTls(host, port);
}

bool Channel::LogIn(std::string_view user, std::string_view password) {
  Trace(HandlePrefix() + "** Connected ", "RFSO", "Connect");
  connected_ = true;
  Bytes login = BuildLoginMessage(Utf8ToAnsi(user), Utf8ToAnsi(password));
  if (!SendMessage(static_cast<int32_t>(login.size()), login)) {
    LogFailure(HandlePrefix() + "** Send login fail ", "RFSO", "Connect", 1);
    return false;
  }
  bool result = RecvResult();
  Trace(HandlePrefix() + "** login " + (result ? "True" : "False"), "RFSO", "Connect");
  return result;
}

// A caller that never asks for TLS keeps the socket it was created with, untouched; otherwise
// each Open gets a fresh socket over the transport asked for.
void Channel::UseTransport() {
  presented_fingerprint_.clear();
  if (!tls_.enabled && !tls_api_) return;
  std::shared_ptr<net_internal::SocketApi> api = net_internal::SystemSocketApi();
  tls_api_.reset();
  if (tls_.enabled) {
    tls_api_ = std::make_shared<net_internal::TlsSocketApi>(api, tls_);
    api = tls_api_;
  }
  WinSock fresh(api);
  // The send time-out follows the receive time-out, as set_timeout keeps them.
  fresh.SetReceiveTimeout(socket_.ReceiveTimeout());
  fresh.SetSendTimeout(socket_.ReceiveTimeout());
  fresh.SetReadAhead(true);
  socket_ = std::move(fresh);
}

bool Channel::StartTls(std::string_view host, int32_t port) {
  std::string message;
  const int32_t refused = tls_api_->Handshake(socket_.SocketHandle(), std::string(host), port,
                                              socket_.ReceiveTimeout(), message);
  presented_fingerprint_ = tls_api_->PresentedFingerprint();
  if (refused == 0) {
    Trace(HandlePrefix() + "** TLS " + presented_fingerprint_, "RFSO", "Connect");
    return true;
  }
  error_.Set(refused, message);
  LogFailure(HandlePrefix() + "** TLS refused: " + message, "RFSO", "Connect");
  socket_.Disconnect();
  return false;
}

void Channel::Close() {
  socket_.Disconnect();
  connected_ = false;
}

}  // namespace pelmora::admin::internal
