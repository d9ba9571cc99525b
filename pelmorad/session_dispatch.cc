// The login exchange, the choice of handler for each request code, the failure form of every
// reply and the checks on path arguments.
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <algorithm>
#include <chrono>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/exec_wire.h"
#include "pelmora/admin/mode_wire.h"
#include "pelmora/admin/resume_wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/codepage.h"
#include "pelmorad/audit.h"
#include "pelmorad/blocking.h"
#include "pelmorad/password.h"
#include "pelmorad/session.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;
using pelmora::admin::RequestCode;

namespace {

// A real hash checked when the account does not exist, so the answer takes as long either way.
const std::string& UnknownAccountHash() {
  static const std::string hash = HashPassword("no such account");
  return hash;
}

}  // namespace

asio::awaitable<bool> Session::HandleLogin(std::span<const uint8_t> data) {
  runtime_ = context_.runtime;  // a login is checked against the configuration of its time
  auto parts = pelmora::admin::ParseLoginMessage(data);
  std::string user, password;
  if (parts) {
    user = pelmora::AnsiToUtf8(pelmora::admin::DecodeCredential(parts->first));
    password = pelmora::admin::DecodeCredential(parts->second);
  }
  // Over TLS the client's certificate is checked first: one the account lists logs in without
  // the password, whatever the message carries in its place.
  auto certificate_admits = [&](const Account* account) {
    return account != nullptr && connection_.tls && !connection_.client_fingerprint.empty() &&
           std::ranges::find(account->client_certificates, connection_.client_fingerprint) !=
               account->client_certificates.end();
  };
  if (parts && certificate_admits(runtime_->config.FindAccount(user))) {
    co_return co_await LogIn(*runtime_->config.FindAccount(user),
                             "login by client certificate " + connection_.client_fingerprint);
  }
  // Counted as in flight until it is answered, whatever ends the session meanwhile.
  struct Attempt {
    LoginThrottle& throttle;
    const std::string& address;
    const std::string& user;
    bool accepted = false;
    ~Attempt() { throttle.Finish(address, user, accepted, LoginThrottle::Clock::now()); }
  };
  LoginThrottle::Clock::duration wait =
      context_.throttle.Begin(address_, user, LoginThrottle::Clock::now());
  Attempt attempt{context_.throttle, address_, user};
  if (wait.count() > 0) {
    auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(wait).count();
    Audit({peer_, user, -1, "login delayed " + std::to_string(milliseconds) + " ms",
           kLogonFailure});
    // The client waits for the service now: only the login grace time runs.
    idle_timer_.expires_at(login_deadline_);
    asio::steady_timer delay(socket_.get_executor(), wait);
    co_await delay.async_wait(asio::use_awaitable);
    if (!socket_.is_open()) co_return false;
  }
  const Account* account = runtime_->config.FindAccount(user);
  std::string hash = account != nullptr ? account->password_hash : std::string();
  bool accepted = co_await RunBlocking(context_.pool, [&] {
    return context_.passwords.Verify(password, hash.empty() ? UnknownAccountHash() : hash);
  });
  accepted = accepted && account != nullptr && parts.has_value();
  if (accepted && runtime_ != context_.runtime) {
    // Reloaded while the password was checked: the login must hold under the new configuration.
    const Account* fresh = context_.runtime->config.FindAccount(user);
    accepted = fresh != nullptr && fresh->password_hash == hash;
    if (accepted) runtime_ = context_.runtime, account = fresh;
  }
  // Why the password path was taken over TLS, for the audit line.
  std::string how;
  if (connection_.tls) {
    how = connection_.client_fingerprint.empty()
              ? " by password over TLS"
              : " by password over TLS (client certificate " + connection_.client_fingerprint +
                    " is not the account's)";
  }
  if (accepted && account->require_tls && !connection_.tls) {
    Audit({peer_, user, -1, "login refused: the account requires TLS and this connection is plain",
           kLogonFailure});
    co_return co_await SendResult(kLogonFailure);
  }
  attempt.accepted = accepted;
  if (accepted) co_return co_await LogIn(*account, "login" + how);
  Audit({peer_, user, -1, "login failed" + how, kLogonFailure});
  co_return co_await SendResult(kLogonFailure);
}

asio::awaitable<bool> Session::LogIn(const Account& account, const std::string& audit_text) {
  account_ = &account;
  identity_ = runtime_->IdentityOf(account);
  LeaveUnauthenticated();
  ArmIdleTimer();
  Audit({peer_, account.name, -1, audit_text, kSuccess});
  co_return co_await SendResult(kSuccess);
}

asio::awaitable<bool> Session::Dispatch(const RequestBlock& block) {
  if (block.code == pelmora::admin::kExecHelloCode || block.code == pelmora::admin::kExecRunCode) {
    co_return co_await HandleExec(block);
  }
  if (block.code == pelmora::admin::kModeGetCode || block.code == pelmora::admin::kModeSetCode) {
    co_return co_await HandleMode(block);
  }
  if (block.code == pelmora::admin::kResumeCode) co_return co_await HandleResume(block);
  switch (static_cast<RequestCode>(block.code)) {
    case RequestCode::kUpload:
      co_return co_await HandleUpload(block);
    case RequestCode::kDownload:
      co_return co_await HandleDownload(block);
    case RequestCode::kGetFileInfo:
      co_return co_await HandleFileInfo(block);
    case RequestCode::kGetFolderFiles:
      co_return co_await HandleListing(block);
    case RequestCode::kCopyRemoteFile:
    case RequestCode::kCopyRemoteFolder:
    case RequestCode::kMoveRemoteFile:
      co_return co_await HandleCopy(block);
    case RequestCode::kFileExists:
    case RequestCode::kFolderExists:
    case RequestCode::kCreateRemoteFile:
    case RequestCode::kCreateRemoteFolder:
    case RequestCode::kDeleteRemoteFile:
    case RequestCode::kDeleteRemoteFolder:
      co_return co_await HandleFileRequest(block);
    case RequestCode::kGetPathWithKey:
      co_return co_await HandlePathWithKey(block);
    case RequestCode::kGetPrintQ:
      co_return co_await HandlePrintQueue(block);
    case RequestCode::kIsSameMachineWithSvr:
      co_return co_await HandleSameMachine(block);
    case RequestCode::kGetFileVersion:
      co_return co_await HandleFileVersion(block);
    case RequestCode::kGetSystemDirectory:
    case RequestCode::kGetSystemTime:
      co_return co_await HandleText(block);
    case RequestCode::kSyncCreateProcess:
      co_return co_await HandleCommand(block);
  }
  AuditRequest(block.code, "unknown request", kInvalidFunction);
  co_return co_await SendResult(kInvalidFunction);
}

asio::awaitable<bool> Session::Refuse(const RequestBlock& block, int32_t error) {
  switch (static_cast<RequestCode>(block.code)) {
    case RequestCode::kUpload: {
      std::optional<ClientMessage> header = co_await ReadMessage();
      co_return header&& co_await SendMessage(pelmora::admin::BuildGoReply(false));
    }
    case RequestCode::kDownload: {
      pelmora::admin::TransferHeader refused;
      refused.size = -1;
      co_return co_await SendMessage(pelmora::admin::BuildTransferHeader(refused));
    }
    case RequestCode::kGetFileInfo:
    case RequestCode::kGetFolderFiles:
    case RequestCode::kGetPathWithKey:
    case RequestCode::kGetPrintQ:
      co_return co_await SendMessage(pelmora::admin::BuildSizeMessage(-1));
    case RequestCode::kGetFileVersion:
    case RequestCode::kGetSystemDirectory:
    case RequestCode::kGetSystemTime:
      co_return co_await SendMessage({});
    case RequestCode::kSyncCreateProcess:
      co_return co_await SendMessage(
          pelmora::admin::BuildCommandStatusReply(pelmora::admin::kProcessNotStarted));
    default:
      co_return co_await SendResult(error);
  }
}

Session::Target Session::ResolveArgument(const RequestBlock& block, std::size_t index,
                                         bool write) const {
  Target target;
  if (index >= block.args.size()) {
    target.error = kInvalidParameter;
    return target;
  }
  target.text = pelmora::admin::DecodeUnicodeArgument(block.args[index]);
  PathResult parsed = ParseDrivePath(target.text, static_cast<std::size_t>(limits().path_length));
  if (!parsed.path) {
    target.error = parsed.error;
    return target;
  }
  target.path = *parsed.path;
  if (!runtime_->drives->IsMapped(target.path.drive)) {
    target.error = kPathNotFound;
  } else if (!account_->MayUseDrive(target.path.drive) ||
             (write && (account_->read_only || !runtime_->MayChangeTasks(*account_, target.path)))) {
    target.error = kAccessDenied;
  }
  return target;
}

bool Session::FlagArgument(const RequestBlock& block, std::size_t index) {
  return index < block.args.size() &&
         pelmora::admin::DecodeUnicodeArgument(block.args[index]) == "TRUE";
}

}  // namespace pelmorad
