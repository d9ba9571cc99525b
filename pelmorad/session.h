// One client connection: a coroutine that reads the login message and then one request after the
// other, answers each in its reply form, and audits it. Created by the listener; lives as long as
// its coroutine (it holds itself through a shared pointer).
//
//   Session::Start(context, std::move(socket), {.peer = tcp_socket.remote_endpoint()});
//
// The session's socket is a stream socket of any family: the accepted TCP connection itself, or,
// for a TLS connection, one end of a unix socket pair whose other end the listener relays to and
// from the TLS session.
#ifndef PELMORAD_SESSION_H_
#define PELMORAD_SESSION_H_

#include <asio/awaitable.hpp>
#include <asio/generic/stream_protocol.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pelmora/admin/wire.h"
#include "pelmorad/blocking.h"
#include "pelmorad/drive_path.h"
#include "pelmorad/runtime.h"
#include "pelmorad/worker_link.h"

namespace pelmorad {

// Requests before a successful login that a session answers before it closes.
inline constexpr int kMaxRequestsBeforeLogin = 3;
// The largest request block a session accepts before a successful login (it is refused anyway).
inline constexpr int kRequestBytesBeforeLogin = 8192;

struct RunningCommand;
struct ExecJob;

// "192.0.2.1:40312" or "[2001:db8::1]:40312", as the audit lines name a client.
std::string EndpointText(const asio::ip::tcp::endpoint& peer);

// What the listener knows about a connection.
struct Connection {
  asio::ip::tcp::endpoint peer;     // the client's address and port
  bool tls = false;                 // the bytes arrive through TLS
  std::string client_fingerprint;   // of the client's certificate over TLS, "" for none
  // When the connection was accepted (the login grace time runs from it); default: now.
  std::optional<asio::steady_timer::time_point> accepted;
  bool admitted = false;            // the listener has already applied the connection limits
};

class Session : public std::enable_shared_from_this<Session> {
 public:
  using Socket = asio::generic::stream_protocol::socket;

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
  // A framed message from the client.
  struct ClientMessage {
    int32_t sequence = 0;
    std::vector<uint8_t> data;
  };
  // A path argument checked against the drives and the account.
  struct Target {
    DrivePath path;
    std::string text;  // as sent, for the audit line
    int32_t error = 0;
  };

  asio::awaitable<void> Run();
  // Passes the connection of a session that has just logged in to its account's worker.
  void HandOff();
  asio::awaitable<void> Watchdog();
  void ArmIdleTimer();

  // Socket steps; false when the connection is gone (closed, reset, idle time-out).
  asio::awaitable<bool> ReadExactly(std::span<uint8_t> buffer);
  asio::awaitable<std::optional<ClientMessage>> ReadMessage();
  asio::awaitable<bool> SendMessage(std::span<const uint8_t> data);
  asio::awaitable<bool> SendRaw(std::span<const uint8_t> data);
  asio::awaitable<bool> SendResult(int32_t error);
  asio::awaitable<bool> SendSized(std::span<const uint8_t> data);

  // Protocol steps; false ends the session.
  asio::awaitable<bool> HandleMessage(const ClientMessage& message);
  asio::awaitable<bool> HandleLogin(std::span<const uint8_t> data);
  // Logs the session in as `account` (held by runtime_) and answers success.
  asio::awaitable<bool> LogIn(const Account& account, const std::string& audit_text);
  asio::awaitable<bool> HandleAnnouncement(int32_t total);
  asio::awaitable<bool> Dispatch(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> Refuse(const pelmora::admin::RequestBlock& block, int32_t error);

  // Requests (session_files.cc, session_info.cc, session_transfer.cc, session_command.cc).
  asio::awaitable<bool> HandleFileRequest(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandleCopy(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandleFileInfo(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandleListing(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandlePathWithKey(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandlePrintQueue(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandleSameMachine(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandleFileVersion(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandleText(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandleUpload(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandleDownload(const pelmora::admin::RequestBlock& block);
  // The download exchange for `target` from byte `offset_asked` (request `code`, for the audit).
  asio::awaitable<bool> SendDownload(int code, Target target, int32_t offset_asked);
  // The download from an offset (session_resume.cc).
  asio::awaitable<bool> HandleResume(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> HandleCommand(const pelmora::admin::RequestBlock& block);
  // Forwards a running command's output until it ends, is killed or the client goes; false when
  // the connection is gone.
  asio::awaitable<bool> StreamCommand(std::shared_ptr<RunningCommand> command, int32_t timeout);
  asio::awaitable<bool> ForwardOutput(asio::posix::stream_descriptor& output);
  // The extended command exchange (session_exec.cc): hello and run requests.
  asio::awaitable<bool> HandleExec(const pelmora::admin::RequestBlock& block);
  asio::awaitable<bool> StreamExec(std::shared_ptr<ExecJob> job, int32_t timeout,
                                   std::string audit_text);
  // The file mode requests (session_mode.cc): get mode and set mode.
  asio::awaitable<bool> HandleMode(const pelmora::admin::RequestBlock& block);

  // Runs file work on the pool. Requests are served only in an account worker, which already
  // is the account's user.
  template <typename Function>
  auto RunFileWork(Function function) {
    return RunBlocking(context_.pool, std::move(function));
  }

  // Checks argument `index` as a path; `write` when the request changes the file system.
  Target ResolveArgument(const pelmora::admin::RequestBlock& block, std::size_t index,
                         bool write) const;
  // The flag argument `index` ("TRUE" is true).
  static bool FlagArgument(const pelmora::admin::RequestBlock& block, std::size_t index);
  void AuditRequest(int code, const std::string& path, int32_t result) const;
  const Limits& limits() const { return runtime_->config.limits; }
  // The largest request block accepted now.
  int RequestLimit() const {
    return account_ != nullptr ? limits().request_bytes
                               : std::min(limits().request_bytes, kRequestBytesBeforeLogin);
  }
  // Leaves the count of connections not yet logged in (once).
  void LeaveUnauthenticated();

  ServiceContext& context_;
  std::shared_ptr<const Runtime> runtime_;
  Socket socket_;
  asio::steady_timer idle_timer_;
  Connection connection_;
  std::string address_;
  std::string peer_;  // address:port
  const Account* account_ = nullptr;
  const Identity* identity_ = nullptr;  // the account's, held by runtime_
  int32_t sequence_ = 0;  // of the client's last framed message
  uint64_t handed_off_as_ = 0;   // in a worker: the id the root process gave the session
  std::vector<uint8_t> pending_;  // bytes the root process read past the login
  int refused_before_login_ = 0;
  bool counted_unauthenticated_ = true;  // counted in context_.unauthenticated
  asio::steady_timer::time_point login_deadline_;
  bool idle_ = true;
  bool sending_ = false;   // a write to the client is waiting (the client may not be reading)
  int command_group_ = 0;  // process group of the running command, 0 when none
};

}  // namespace pelmorad

#endif  // PELMORAD_SESSION_H_
