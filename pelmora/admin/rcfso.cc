// RCFSO's life cycle, session (Connect, Disconnect), properties, events and logging helpers.
#include "pelmora/admin/rcfso.h"

#include <algorithm>
#include <exception>
#include <string>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/wire.h"
#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_numbers.h"
#include "pelmora/common/log.h"
#include "pelmora/common/system.h"
#include "pelmora/net/internal/socket_api.h"
#include "pelmora/net/internal/tls_socket_api.h"

namespace pelmora::admin {
namespace {

// The receive time-out a new client starts with, in milliseconds.
constexpr int32_t kDefaultTimeout = 10000;
// Log levels: progress lines are written from level 3, failure lines always.
constexpr int16_t kTraceLevel = 3;
constexpr int16_t kFailureLevel = 1;
// The cache folder below the temporary folder.
constexpr std::string_view kCacheSubfolder = "Corvanta/Qelmark/Admin/2.0/RSOCache/";

}  // namespace

RCFSO::RCFSO() {
  ClearError();
  // Keep-alive is asked for before any socket exists; the socket object refuses it (no socket)
  // and that refusal is of no consequence, as it always was.
  (void)socket_.SetSocketOption(sckSOL_SOCKET, sckSO_KEEPALIVE, -1);
  socket_.SetReceiveTimeout(kDefaultTimeout);
  socket_.SetSendTimeout(kDefaultTimeout);
  // No caller can reach this socket, so its small reads may be served from a read-ahead buffer.
  socket_.SetReadAhead(true);
  connected_ = false;
  LogLevel() = 3;
  sequence_ = kFirstSequenceNumber;
  cache_folder_ = GetTempFolder() + std::string(kCacheSubfolder);
}

RCFSO::~RCFSO() {
  try {
    socket_.Disconnect();
  } catch (...) {
  }
}

void RCFSO::ClearError() {
  err_description_.clear();
  err_code_ = 0;
}

void RCFSO::SetError(int32_t code, std::string description) {
  err_code_ = code;
  err_description_ = std::move(description);
}

void RCFSO::SetSocketError(int32_t code) { SetError(code, socket_.GetErrorDescription(code)); }

std::string RCFSO::HandlePrefix() const {
  return "(" + std::to_string(socket_.SocketHandle()) + ")";
}

void RCFSO::Trace(std::string_view text, std::string_view module, std::string_view routine,
                  int32_t entry_type) const {
  WriteLog(kTraceLevel, text, module, routine, entry_type);
}

void RCFSO::LogFailure(std::string_view text, std::string_view module, std::string_view routine,
                       int32_t entry_type) const {
  WriteLog(kFailureLevel, text, module, routine, entry_type);
}

void RCFSO::RaiseEvent(void (RCFSOEvents::*event)(std::string&), std::string text) {
  // A sink may remove itself while handling the event: walk a copy.
  std::vector<RCFSOEvents*> sinks = sinks_;
  for (RCFSOEvents* sink : sinks) {
    std::string argument = text;
    (sink->*event)(argument);
  }
}

void RCFSO::AddEventSink(RCFSOEvents* sink) {
  if (sink != nullptr && std::find(sinks_.begin(), sinks_.end(), sink) == sinks_.end()) {
    sinks_.push_back(sink);
  }
}

void RCFSO::RemoveEventSink(RCFSOEvents* sink) {
  sinks_.erase(std::remove(sinks_.begin(), sinks_.end(), sink), sinks_.end());
}

int32_t RCFSO::timeout() const { return socket_.ReceiveTimeout(); }

// The session time-out bounds the client's own sends as well: a send that cannot get a byte onto
// a dead link for that long fails with 10060, as a reply that does not come does.
void RCFSO::set_timeout(int32_t value) {
  socket_.SetReceiveTimeout(value);
  socket_.SetSendTimeout(socket_.ReceiveTimeout());
}

std::string RCFSO::LogPath() const { return LogRoot(); }

void RCFSO::SetLogPath(std::string value) { LogRoot() = std::move(value); }

bool RCFSO::Connect(std::string_view Host, int32_t lPort, std::string_view sUserName,
                    std::string_view sPassword, bool bEncoded) {
  ClearError();
  if (sUserName.empty()) {
    SetError(errors::kEmptyArgument, "Empty user name");
    return false;
  }
  if (sPassword.empty()) {
    SetError(errors::kEmptyArgument, "Empty password ");
    return false;
  }
  std::string user = bEncoded ? std::string(sUserName) : EncodeCredential(sUserName);
  std::string password = bEncoded ? std::string(sPassword) : EncodeCredential(sPassword);
  UseTransport();
  try {
    socket_.SetRemoteHost(std::string(Host));
    socket_.SetRemotePort(lPort);
    socket_.Connect();
  } catch (const Error& e) {
    SetError(e.Number(), e.Description());
    LogFailure(HandlePrefix() + "** Connected fail", "RFSO", "Connect");
    return false;
  }
  // A request is a size message followed at once by its block: without TCP_NODELAY the block
  // would wait for the acknowledgement of the size message (tens of milliseconds per request).
  (void)socket_.SetSocketOption(sckIPPROTO_TCP, sckTCP_NODELAY, 1);
  // Over TLS nothing, the credentials least of all, is sent before the server's identity holds.
  if (tls_api_ && !StartTls(Host, lPort)) return false;
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
// each Connect gets a fresh socket over the transport asked for.
void RCFSO::UseTransport() {
  presented_fingerprint_.clear();
  if (!tls_.enabled && !tls_api_) return;
  std::shared_ptr<net_internal::SocketApi> api = net_internal::SystemSocketApi();
  tls_api_.reset();
  if (tls_.enabled) {
    tls_api_ = std::make_shared<net_internal::TlsSocketApi>(api, tls_);
    api = tls_api_;
  }
  WinSock fresh(api);
  fresh.SetReceiveTimeout(socket_.ReceiveTimeout());
  fresh.SetReadAhead(true);
  socket_ = std::move(fresh);
}

bool RCFSO::StartTls(std::string_view host, int32_t port) {
  std::string message;
  const int32_t refused = tls_api_->Handshake(socket_.SocketHandle(), std::string(host), port,
                                              socket_.ReceiveTimeout(), message);
  presented_fingerprint_ = tls_api_->PresentedFingerprint();
  if (refused == 0) {
    Trace(HandlePrefix() + "** TLS " + presented_fingerprint_, "RFSO", "Connect");
    return true;
  }
  SetError(refused, message);
  LogFailure(HandlePrefix() + "** TLS refused: " + message, "RFSO", "Connect");
  socket_.Disconnect();
  return false;
}

void RCFSO::Disconnect() {
  ClearError();
  std::string handle = std::to_string(socket_.SocketHandle());
  Trace("(" + handle + ")Client Disconnected" + handle, "RSFSO", "Disconnect");
  socket_.Disconnect();
  connected_ = false;
}

void RCFSO::NotifyDisconnect(std::string message) {
  ClearError();
  std::string handle = std::to_string(socket_.SocketHandle());
  Trace("(" + handle + ")Client Disconnected" + handle, "RSFSO", "FSODIsconnect");
  RaiseEvent(&RCFSOEvents::FSODisconnect, std::move(message));
}

}  // namespace pelmora::admin
