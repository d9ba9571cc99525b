// A session's passage from the root process, which takes the login, to the account's worker,
// which serves the requests; and the stop that both kinds of process share.
#include <netinet/in.h>
#include <sys/socket.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>

#include "pelmorad/audit.h"
#include "pelmorad/session.h"
#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

constexpr auto kStopPoll = std::chrono::milliseconds(50);

// The connection as a socket of the session's type: a TCP connection, or the worker's end of
// the root process's TLS relay. Only its descriptor is used from here on: the client's address
// comes with the session's state.
Session::Socket AdoptConnection(asio::io_context& io, UniqueFd connection) {
  sockaddr_storage local{};
  socklen_t size = sizeof(local);
  ::getsockname(connection.get(), reinterpret_cast<sockaddr*>(&local), &size);
  int family = local.ss_family;
  Session::Socket socket(io);
  asio::error_code error;
  socket.assign(asio::generic::stream_protocol(family, family == AF_UNIX ? 0 : IPPROTO_TCP),
                connection.get(), error);
  if (!error) connection.release();
  return socket;
}

}  // namespace

void Session::HandOff() {
  SessionState state;
  state.address = address_;
  state.peer = peer_;
  state.sequence = channel_.sequence();
  state.pending = channel_.TakePending();
  asio::error_code error;
  UniqueFd connection(channel_.socket().release(error));
  channel_.idle_timer().cancel();
  // The worker's count holds the session from here on. This object ends only once its watchdog
  // has woken; under a burst of 1000 logins hundreds were still waiting for that, counted twice,
  // and a service holding fewer sessions than its limit refused new ones.
  LeaveCounts();
  if (error || !context_.hand_off(*account_, std::move(state), std::move(connection))) {
    Audit({peer_, account_->name, -1, "closed: no worker could take the session",
           kNotEnoughMemory});
  }
}

void Session::StartLoggedIn(ServiceContext& context, const Account& account, UniqueFd connection,
                            SessionState state) {
  Connection logged_in;
  asio::error_code error;
  logged_in.peer = asio::ip::tcp::endpoint(asio::ip::make_address(state.address, error), 0);
  logged_in.admitted = true;
  auto session = std::make_shared<Session>(
      context, AdoptConnection(context.io, std::move(connection)), std::move(logged_in));
  session->peer_ = std::move(state.peer);
  session->channel_.Resume(state.sequence, std::move(state.pending));
  session->handed_off_as_ = state.id;
  session->account_ = &account;
  session->LeaveUnauthenticated();
  asio::co_spawn(
      context.io, [session]() { return session->Run(); }, asio::detached);
  asio::co_spawn(
      context.io, [session]() { return session->Watchdog(); }, asio::detached);
}

asio::awaitable<void> Session::EndAll(ServiceContext& context, int grace_seconds) {
  context.stopping = true;
  for (Session* session : context.sessions) {
    session->KillCommand();
    if (session->Idle()) session->Close();
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(grace_seconds);
  asio::steady_timer timer(context.io);
  while (!context.sessions.empty() && std::chrono::steady_clock::now() < deadline) {
    timer.expires_after(kStopPoll);
    co_await timer.async_wait(asio::use_awaitable);
    for (Session* session : context.sessions) {
      if (session->Idle()) session->Close();
    }
  }
  // Copied: closing a session may end it and take it out of the set.
  std::vector<Session*> left(context.sessions.begin(), context.sessions.end());
  for (Session* session : left) session->Close();
}

}  // namespace pelmorad
