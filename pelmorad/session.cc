#include "pelmorad/session.h"

#include <signal.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>
#include <random>

#include "pelmora/admin/wire_replies.h"
#include "pelmorad/audit.h"
#include "pelmorad/command_tree.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;

std::string EndpointText(const asio::ip::tcp::endpoint& peer) {
  std::string address = peer.address().to_string();
  return peer.address().is_v6() ? "[" + address + "]:" + std::to_string(peer.port())
                                : address + ":" + std::to_string(peer.port());
}

namespace {

std::string PeerText(const asio::ip::tcp::endpoint& peer, std::string& address) {
  address = peer.address().to_string();
  return EndpointText(peer);
}

// A size message that is a plausible request announcement rather than a login message.
bool LooksLikeAnnouncement(std::span<const uint8_t> data, int limit) {
  if (data.size() != 4) return false;
  std::optional<int32_t> total = pelmora::admin::ParseSizeMessage(data);
  return total && *total >= 2 && *total <= limit;
}

}  // namespace

Session::Session(ServiceContext& context, Socket socket, Connection connection)
    : context_(context),
      runtime_(context.runtime),
      channel_(std::move(socket),
               {.idle_deadline = [this] { return IdleDeadline(); },
                .closing = [this](const std::string& reason) { ClosedBy(reason); }}),
      connection_(std::move(connection)) {
  peer_ = PeerText(connection_.peer, address_);
  context_.sessions.insert(this);
  context_.sessions_per_address[address_] += 1;
  context_.unauthenticated += 1;
  login_deadline_ = connection_.accepted.value_or(asio::steady_timer::clock_type::now()) +
                    std::chrono::seconds(limits().login_grace_seconds);
}

void Session::LeaveUnauthenticated() {
  if (counted_unauthenticated_) context_.unauthenticated -= 1;
  counted_unauthenticated_ = false;
}

Session::~Session() {
  if (handed_off_as_ != 0 && context_.session_ended) context_.session_ended(handed_off_as_);
  LeaveUnauthenticated();
  LeaveCounts();
}

void Session::LeaveCounts() {
  if (context_.sessions.erase(this) == 0) return;  // left already
  if (--context_.sessions_per_address[address_] <= 0) {
    context_.sessions_per_address.erase(address_);
  }
}

bool Session::Admit(ServiceContext& context, const asio::ip::tcp::endpoint& endpoint) {
  std::string address;
  std::string peer = PeerText(endpoint, address);
  const Limits& limits = context.runtime->config.limits;
  auto per_address = context.sessions_per_address.find(address);
  bool too_many =
      static_cast<int>(context.sessions.size()) + context.served_by_workers >= limits.sessions ||
      (per_address != context.sessions_per_address.end() &&
       per_address->second >= limits.sessions_per_address);
  if (too_many || context.stopping) {
    Audit({peer, "", -1, "refused: session limit", kAccessDenied});
    return false;
  }
  static thread_local std::mt19937 random(std::random_device{}());
  double chance = std::uniform_real_distribution<double>(0.0, 1.0)(random);
  if (DropUnauthenticated(context.unauthenticated, limits, chance)) {
    Audit({peer, "", -1, "refused: too many connections not logged in", kAccessDenied});
    return false;
  }
  return true;
}

void Session::Start(ServiceContext& context, Socket socket, Connection connection) {
  if (!connection.admitted && !Admit(context, connection.peer)) return;  // the socket closes
  auto session = std::make_shared<Session>(context, std::move(socket), std::move(connection));
  asio::co_spawn(
      context.io, [session]() { return session->Run(); }, asio::detached);
  asio::co_spawn(
      context.io, [session]() { return session->Watchdog(); }, asio::detached);
}

void Session::Close() {
  KillCommand();  // a command never outlives its session
  channel_.Close();
}

void Session::Reconfigured(const Runtime& runtime) {
  if (account_ == nullptr || !channel_.is_open()) return;
  if (!AccountUnchanged(*runtime_, *account_, runtime)) Revoke();
}

void Session::Revoke() {
  if (account_ == nullptr || !channel_.is_open()) return;
  Audit({peer_, account_->name, -1, "closed: the account was removed or changed by a reload",
         kAccessDenied});
  Close();
}

void Session::KillCommand() {
  // Not reaped before command_group_ is cleared, so the number is still the command's.
  if (command_group_ > 0) KillProcessTree(command_group_);
}

asio::steady_timer::time_point Session::IdleDeadline() const {
  auto idle = asio::steady_timer::clock_type::now() + std::chrono::seconds(limits().idle_seconds);
  return account_ != nullptr ? idle : std::min(idle, login_deadline_);
}

void Session::ClosedBy(const std::string& reason) const {
  Audit({peer_, account_ ? account_->name : "", -1, reason, kInvalidParameter});
}

asio::awaitable<void> Session::Watchdog() {
  auto self = shared_from_this();
  asio::steady_timer& idle_timer = channel_.idle_timer();
  channel_.ArmIdleTimer();
  while (channel_.is_open()) {
    asio::error_code error;
    co_await idle_timer.async_wait(asio::redirect_error(asio::use_awaitable, error));
    if (!error && idle_timer.expiry() <= asio::steady_timer::clock_type::now() &&
        channel_.is_open()) {
      if (channel_.TakeUpLaterDeadline()) continue;
      if (command_group_ > 0 && !channel_.sending()) {
        // A silent command: the client waits for it, not the other way round.
        channel_.ArmIdleTimer();
        continue;
      }
      bool grace = account_ == nullptr && login_deadline_ <= asio::steady_timer::clock_type::now();
      Audit({peer_, account_ ? account_->name : "", -1,
             grace ? "closed: not logged in within the grace time" : "closed: idle", kTimeout});
      Close();
    }
  }
}

asio::awaitable<std::optional<SessionChannel::Message>> Session::ReadMessage() {
  co_return co_await channel_.ReadMessage(account_ == nullptr && !connection_.tls);
}

asio::awaitable<void> Session::Run() {
  auto self = shared_from_this();
  while (channel_.is_open()) {
    idle_ = true;
    if (context_.stopping) break;
    std::optional<SessionChannel::Message> message = co_await ReadMessage();
    idle_ = false;
    bool logged_in = account_ != nullptr;
    if (!message || !co_await HandleMessage(*message)) break;
    if (!logged_in && account_ != nullptr && context_.hand_off) {
      HandOff();
      co_return;
    }
  }
  Close();
}

asio::awaitable<bool> Session::HandleMessage(const SessionChannel::Message& message) {
  if (account_ == nullptr && !LooksLikeAnnouncement(message.data, limits().request_bytes)) {
    co_return co_await HandleLogin(message.data);
  }
  std::optional<int32_t> total = pelmora::admin::ParseSizeMessage(message.data);
  if (!total) {
    Audit({peer_, account_ ? account_->name : "", -1, "closed: not a size message",
           kInvalidParameter});
    co_return false;
  }
  co_return co_await HandleAnnouncement(*total);
}

asio::awaitable<bool> Session::HandleAnnouncement(int32_t total) {
  if (total < 2 || total > RequestLimit()) {
    Audit({peer_, account_ ? account_->name : "", -1,
           "closed: request size " + std::to_string(total), kInvalidParameter});
    co_return false;
  }
  std::vector<uint8_t> raw(
      std::max<std::size_t>(pelmora::admin::kPacketSize, static_cast<std::size_t>(total)));
  if (!co_await channel_.ReadExactly(raw)) co_return false;
  std::optional<RequestBlock> block =
      pelmora::admin::ParseRequestBlock(std::span<const uint8_t>(raw).first(total));
  if (!block) {
    Audit({peer_, account_ ? account_->name : "", -1, "closed: malformed request",
           kInvalidParameter});
    co_return false;
  }
  if (account_ == nullptr) {
    refused_before_login_ += 1;
    AuditRequest(block->code, "refused: not logged in", kAccessDenied);
    bool sent = co_await Refuse(channel_, *block, kAccessDenied, !connection_.tls);
    co_return sent&& refused_before_login_ < kMaxRequestsBeforeLogin;
  }
  co_return co_await Dispatch(*block);
}

void Session::AuditRequest(int code, const std::string& path, int32_t result) const {
  Audit({peer_, account_ ? account_->name : "", code, path, result});
}

}  // namespace pelmorad
