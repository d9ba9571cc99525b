// One client connection: a coroutine that reads the login message and then one request after the
// other, hands each to its family's handler (session_requests.h) and audits it. The connection's
// framing is its SessionChannel. Created by the listener; lives as long as its coroutine (it
// holds itself through a shared pointer).
//
//   Session::Start(context, std::move(socket), {.peer = tcp_socket.remote_endpoint()});
//
// The session's socket is a stream socket of any family: the accepted TCP connection itself, or,
// for a TLS connection, one end of a unix socket pair whose other end the listener relays to and
// from the TLS session.
#ifndef PELMORAD_SESSION_H_
#define PELMORAD_SESSION_H_

#include <algorithm>
#include <asio/awaitable.hpp>
#include <asio/generic/stream_protocol.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pelmora/admin/wire.h"
#include "pelmorad/runtime.h"
#include "pelmorad/session_channel.h"
#include "pelmorad/worker_link.h"

namespace pelmorad {

// Requests before a successful login that a session answers before it closes.
inline constexpr int kMaxRequestsBeforeLogin = 3;
// The largest request block a session accepts before a successful login (it is refused anyway).
inline constexpr int kRequestBytesBeforeLogin = 8192;

// "192.0.2.1:40312" or "[2001:db8::1]:40312", as the audit lines name a client.
std::string EndpointText(const asio::ip::tcp::endpoint& peer);

// What the listener knows about a connection.
struct Connection {
  asio::ip::tcp::endpoint peer;    // the client's address and port
  bool tls = false;                // the bytes arrive through TLS
  std::string client_fingerprint;  // of the client's certificate over TLS, "" for none
  // When the connection was accepted (the login grace time runs from it); default: now.
  std::optional<asio::steady_timer::time_point> accepted;
  bool admitted = false;  // the listener has already applied the connection limits
};

class Session : public std::enable_shared_from_this<Session> {
 public:
  using Socket = SessionChannel::Socket;

  Session(ServiceContext& context, Socket socket, Connection connection);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Registers a new session for `socket` and starts its coroutine on the I/O thread.
  static void Start(ServiceContext& context, Socket socket, Connection connection);
  // Applies the connection limits to a new connection from `peer` (sessions in all and per
  // address, random early drop of connections not logged in); audits and returns false when it
  // is refused.
  static bool Admit(ServiceContext& context, const asio::ip::tcp::endpoint& peer);
  // In an account worker: takes over `connection`, a session that logged in to `account` in
  // the root process, and serves its requests from where the login left it
  // (session_handoff.cc).
  static void StartLoggedIn(ServiceContext& context, const Account& account, UniqueFd connection,
                            SessionState state);
  // The service's stop: ends running commands, closes sessions as they become idle and, after
  // `grace_seconds`, every session left. Ends when no session is left.
  static asio::awaitable<void> EndAll(ServiceContext& context, int grace_seconds);

  // Closes the connection and kills a running command's process group; the coroutine ends at its
  // next step. Never blocks.
  void Close();
  // True while the session waits for the client's next request.
  bool Idle() const { return idle_; }
  // Ends a running command's process group at once (shutdown). Never blocks.
  void KillCommand();
  // After a reload to `runtime`: ends a logged-in session whose account was removed or changed
  // (its rights, password, user or the drive map); other sessions go on with the configuration
  // they started with. Never blocks.
  void Reconfigured(const Runtime& runtime);
  // Ends a logged-in session because a reload removed or changed its account. Never blocks.
  void Revoke();
  // The client's address without the port.
  const std::string& address() const { return address_; }

 private:
  asio::awaitable<void> Run();
  // Passes the connection of a session that has just logged in to its account's worker.
  void HandOff();
  asio::awaitable<void> Watchdog();
  // When the idle timer runs out if nothing moves from now on: the idle time, and before the
  // login no later than the login grace time.
  asio::steady_timer::time_point IdleDeadline() const;
  // Audits the end of a connection whose client broke the framing.
  void ClosedBy(const std::string& reason) const;

  // Protocol steps; false ends the session.
  asio::awaitable<std::optional<SessionChannel::Message>> ReadMessage();
  asio::awaitable<bool> HandleMessage(const SessionChannel::Message& message);
  // The login exchange (session_login.cc).
  asio::awaitable<bool> HandleLogin(std::span<const uint8_t> data);
  // Logs the session in as `account` (held by runtime_) and answers success.
  asio::awaitable<bool> LogIn(const Account& account, const std::string& audit_text);
  asio::awaitable<bool> HandleAnnouncement(int32_t total);
  // Hands a logged-in session's request to its family's handler (session_dispatch.cc).
  asio::awaitable<bool> Dispatch(const pelmora::admin::RequestBlock& block);

  void AuditRequest(int code, const std::string& path, int32_t result) const;
  const Limits& limits() const { return runtime_->config.limits; }
  // The largest request block accepted now.
  int RequestLimit() const {
    return account_ != nullptr ? limits().request_bytes
                               : std::min(limits().request_bytes, kRequestBytesBeforeLogin);
  }
  // Leaves the count of connections not yet logged in (once).
  void LeaveUnauthenticated();
  // Leaves the sessions counted for the limits, in all and per address (once).
  void LeaveCounts();

  ServiceContext& context_;
  std::shared_ptr<const Runtime> runtime_;
  SessionChannel channel_;
  Connection connection_;
  std::string address_;
  std::string peer_;  // address:port
  const Account* account_ = nullptr;
  uint64_t handed_off_as_ = 0;  // in a worker: the id the root process gave the session
  int refused_before_login_ = 0;
  bool counted_unauthenticated_ = true;  // counted in context_.unauthenticated
  asio::steady_timer::time_point login_deadline_;
  bool idle_ = true;
  int command_group_ = 0;  // process group of the running command, 0 when none
};

}  // namespace pelmorad

#endif  // PELMORAD_SESSION_H_
