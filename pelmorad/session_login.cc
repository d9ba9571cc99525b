// The login exchange: the login message checked against the account's password, or over TLS
// the client's certificate, with the throttle's delay and the TLS requirement; its audit lines.
#include <algorithm>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/codepage.h"
#include "pelmorad/audit.h"
#include "pelmorad/blocking.h"
#include "pelmorad/password.h"
#include "pelmorad/session.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

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
    Audit(
        {peer_, user, -1, "login delayed " + std::to_string(milliseconds) + " ms", kLogonFailure});
    // The client waits for the service now: only the login grace time runs.
    channel_.idle_timer().expires_at(login_deadline_);
    asio::steady_timer delay(channel_.socket().get_executor(), wait);
    co_await delay.async_wait(asio::use_awaitable);
    if (!channel_.is_open()) co_return false;
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
    co_return co_await channel_.SendResult(kLogonFailure);
  }
  attempt.accepted = accepted;
  if (accepted) co_return co_await LogIn(*account, "login" + how);
  Audit({peer_, user, -1, "login failed" + how, kLogonFailure});
  co_return co_await channel_.SendResult(kLogonFailure);
}

asio::awaitable<bool> Session::LogIn(const Account& account, const std::string& audit_text) {
  account_ = &account;
  LeaveUnauthenticated();
  channel_.ArmIdleTimer();
  Audit({peer_, account.name, -1, audit_text, kSuccess});
  co_return co_await channel_.SendResult(kSuccess);
}

}  // namespace pelmorad
