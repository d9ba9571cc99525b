#include "pelmorad/server.h"

#include <fmt/format.h>
#include <signal.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/redirect_error.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>
#include <fstream>
#include <list>

#include "pelmora/common/error.h"
#include "pelmorad/audit.h"
#include "pelmorad/runtime.h"
#include "pelmorad/session.h"
#include "pelmorad/tls_identity.h"
#include "pelmorad/tls_listener.h"
#include "pelmorad/worker_pool.h"

namespace pelmorad {
namespace {

constexpr int kBacklog = 1024;
constexpr auto kShutdownPoll = std::chrono::milliseconds(50);
constexpr auto kAcceptRetry = std::chrono::milliseconds(100);
constexpr auto kPoolJoinLimit = std::chrono::milliseconds(1000);
// How long after the grace period a worker still has to end before it is killed.
constexpr auto kWorkerMargin = std::chrono::milliseconds(1000);

std::shared_ptr<const Runtime> LoadChecked(const std::string& path) {
  if (!BeneathResolutionAvailable()) {
    throw pelmora::Error(1,
                         "this kernel cannot resolve names beneath a folder (openat2 with "
                         "RESOLVE_BENEATH needs Linux 5.6 or later); refusing to start",
                         "pelmorad");
  }
  return LoadRuntime(path);
}

}  // namespace

std::optional<asio::ip::tcp::endpoint> ParseListenAddress(const std::string& text) {
  std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 >= text.size()) return std::nullopt;
  std::string host = text.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  std::string port_text = text.substr(colon + 1);
  if (port_text.size() > 5 || port_text.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  int port = std::stoi(port_text);
  asio::error_code error;
  asio::ip::address address = asio::ip::make_address(host, error);
  if (error || port > 65535) return std::nullopt;
  return asio::ip::tcp::endpoint(address, static_cast<unsigned short>(port));
}

void CheckListenAddresses(const std::vector<std::string>& addresses) {
  asio::io_context io(1);
  for (const std::string& text : addresses) {
    std::optional<asio::ip::tcp::endpoint> endpoint = ParseListenAddress(text);
    if (!endpoint) {
      throw pelmora::Error(87,
                           fmt::format("listen: \"{}\" is not an address:port with a numeric "
                                       "address and a port from 0 to 65535",
                                       text),
                           "pelmorad");
    }
    asio::ip::tcp::acceptor acceptor(io);
    asio::error_code error;
    acceptor.open(endpoint->protocol(), error);
    if (!error) acceptor.bind(asio::ip::tcp::endpoint(endpoint->address(), 0), error);
    if (error) {
      throw pelmora::Error(
          87, fmt::format("listen: cannot listen on \"{}\": {}", text, error.message()),
          "pelmorad");
    }
  }
}

class Server::Impl {
 public:
  explicit Impl(ServerOptions options)
      : options_(std::move(options)),
        io_(std::make_unique<asio::io_context>(1)),
        context_(*io_, LoadChecked(options_.config_path)),
        signals_(std::make_unique<asio::signal_set>(*io_, SIGTERM, SIGINT, SIGHUP)),
        workers_(std::make_unique<WorkerPool>(context_)) {
    context_.hand_off = [this](const Account& account, SessionState state, UniqueFd connection) {
      return workers_->HandOff(account, std::move(state), std::move(connection));
    };
    if (!TlsAddresses().empty()) {
      tls_ = std::make_unique<TlsListener>(LoadOrCreateTlsIdentity(context_.runtime->config));
    }
  }

  // Sessions still suspended when the loop stopped are destroyed with the I/O context, and they
  // unregister from context_: so the context goes first.
  ~Impl() {
    acceptors_.clear();
    signals_.reset();
    workers_.reset();  // kills the workers still running
    io_.reset();
  }

  int Run() {
    ::signal(SIGPIPE, SIG_IGN);
    Bind();
    WritePortFile(options_.port_file, false);
    WritePortFile(options_.tls_port_file, true);
    for (Listener& listener : acceptors_) {
      asio::co_spawn(*io_, Accept(listener), asio::detached);
    }
    WaitForSignal();
    ServiceMessage("serving");
    io_->run();
    context_.pool.stop();
    if (!JoinPoolWithin(context_.pool, kPoolJoinLimit)) {
      abandoned_ = true;
      ServiceMessage("stopped; file work still blocked in the kernel is abandoned");
      return 0;
    }
    ServiceMessage("stopped");
    return 0;
  }

  bool abandoned() const { return abandoned_; }

 private:
  // A listening socket and whether its connections carry TLS.
  struct Listener {
    asio::ip::tcp::acceptor acceptor;
    bool tls = false;
  };

  std::vector<std::string> TlsAddresses() const {
    return options_.listen_tls.empty() ? context_.runtime->config.listen_tls : options_.listen_tls;
  }

  void Bind() {
    const Config& config = context_.runtime->config;
    if (!config.tls_only) Bind(options_.listen.empty() ? config.listen : options_.listen, false);
    Bind(TlsAddresses(), true);
  }

  void Bind(const std::vector<std::string>& addresses, bool tls) {
    for (const std::string& text : addresses) {
      std::optional<asio::ip::tcp::endpoint> endpoint = ParseListenAddress(text);
      if (!endpoint) throw pelmora::Error(87, "bad listen address " + text, "pelmorad");
      asio::ip::tcp::acceptor& acceptor =
          acceptors_.emplace_back(Listener{asio::ip::tcp::acceptor(*io_), tls}).acceptor;
      asio::error_code error;
      acceptor.open(endpoint->protocol(), error);
      if (!error) acceptor.set_option(asio::socket_base::reuse_address(true), error);
      if (!error && endpoint->address().is_v6()) {
        acceptor.set_option(asio::ip::v6_only(true), error);
      }
      if (!error) acceptor.bind(*endpoint, error);
      if (!error) acceptor.listen(kBacklog, error);
      if (error) {
        throw pelmora::Error(10048, fmt::format("cannot listen on {}: {}", text, error.message()),
                             "pelmorad");
      }
      ServiceMessage(tls ? fmt::format("listening on {} (TLS, certificate {})", text,
                                       tls_->fingerprint())
                         : fmt::format("listening on {}", text));
    }
  }

  // Writes the first bound port of the kind asked for to `path` ("" for none).
  void WritePortFile(const std::string& path, bool tls) {
    if (path.empty()) return;
    for (Listener& listener : acceptors_) {
      if (listener.tls != tls) continue;
      std::ofstream out(path);
      out << listener.acceptor.local_endpoint().port() << '\n';
      return;
    }
  }

  asio::awaitable<void> Accept(Listener& listener) {
    asio::ip::tcp::acceptor& acceptor = listener.acceptor;
    while (acceptor.is_open()) {
      asio::error_code error;
      asio::ip::tcp::socket socket =
          co_await acceptor.async_accept(asio::redirect_error(asio::use_awaitable, error));
      if (!error) {
        // A reply goes out in pieces (a size message, then its record): under Nagle's rule the
        // record waited for the client to acknowledge the size message, which a client waiting
        // for the record delays by up to 40 ms. The option goes with the socket to the worker.
        asio::error_code ignored;
        socket.set_option(asio::ip::tcp::no_delay(true), ignored);
      }
      if (!error && listener.tls) {
        tls_->Serve(context_, std::move(socket));
      } else if (!error) {
        asio::ip::tcp::endpoint peer = socket.remote_endpoint(error);
        if (error) continue;
        Session::Socket plain(*io_, asio::generic::stream_protocol(peer.protocol()),
                              socket.release());
        Connection connection;
        connection.peer = peer;
        Session::Start(context_, std::move(plain), std::move(connection));
      } else if (acceptor.is_open() && error != asio::error::operation_aborted) {
        asio::steady_timer pause(*io_, kAcceptRetry);  // out of descriptors: let some go first
        co_await pause.async_wait(asio::redirect_error(asio::use_awaitable, error));
      }
    }
  }

  void WaitForSignal() {
    signals_->async_wait([this](const asio::error_code& error, int signal_number) {
      if (error) return;
      if (signal_number == SIGHUP) {
        Reload();
        WaitForSignal();
      } else {
        asio::co_spawn(*io_, Stop(), asio::detached);
      }
    });
  }

  void Reload() {
    try {
      context_.runtime = LoadRuntime(options_.config_path);
      ServiceMessage("configuration reloaded; new sessions use it");
      // Copied: closing a session may end it and take it out of the set.
      std::vector<Session*> sessions(context_.sessions.begin(), context_.sessions.end());
      for (Session* session : sessions) session->Reconfigured(*context_.runtime);
      workers_->Reconfigured(*context_.runtime);
    } catch (const pelmora::Error& error) {
      ServiceMessage("reload refused, the running configuration stays: " + error.Description());
    }
  }

  asio::awaitable<void> Stop() {
    ServiceMessage("stopping");
    for (Listener& listener : acceptors_) listener.acceptor.close();
    int grace = context_.runtime->config.limits.grace_seconds;
    workers_->Stop(grace);
    co_await Session::EndAll(context_, grace);
    // The workers end their own sessions within the same grace period.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(grace) + kWorkerMargin;
    asio::steady_timer timer(*io_);
    while (!workers_->Empty() && std::chrono::steady_clock::now() < deadline) {
      timer.expires_after(kShutdownPoll);
      co_await timer.async_wait(asio::use_awaitable);
    }
    workers_->KillAll();
    signals_->cancel();
    io_->stop();
  }

  ServerOptions options_;
  std::unique_ptr<asio::io_context> io_;
  ServiceContext context_;
  std::unique_ptr<asio::signal_set> signals_;
  std::unique_ptr<WorkerPool> workers_;
  std::unique_ptr<TlsListener> tls_;  // when there are TLS addresses
  std::list<Listener> acceptors_;
  bool abandoned_ = false;
};

Server::Server(ServerOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Server::~Server() = default;

int Server::Run() { return impl_->Run(); }

bool Server::Abandoned() const { return impl_->abandoned(); }

}  // namespace pelmorad
