#include "pelmorad/worker.h"

#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/redirect_error.hpp>
#include <asio/signal_set.hpp>
#include <asio/use_awaitable.hpp>
#include <cstdlib>
#include <deque>

#include "pelmora/common/error.h"
#include "pelmorad/audit.h"
#include "pelmorad/runtime.h"
#include "pelmorad/session.h"
#include "pelmorad/worker_link.h"
#include "pelmorad/worker_pool.h"

namespace pelmorad {
namespace {

constexpr auto kPoolJoinLimit = std::chrono::milliseconds(1000);

std::string ReadAll(int fd) {
  std::string text;
  char buffer[65536];
  for (off_t offset = 0;;) {
    ssize_t got = ::pread(fd, buffer, sizeof(buffer), offset);
    if (got <= 0) return text;
    text.append(buffer, static_cast<std::size_t>(got));
    offset += got;
  }
}

// The worker's configuration: the root process's, with the drive folders it opened and the one
// account's identity.
std::shared_ptr<const Runtime> RuntimeFrom(const WorkerSetup& setup, Received& packet) {
  if (packet.descriptors.size() != 2 + setup.drive_letters.size()) return nullptr;
  auto runtime = std::make_shared<Runtime>();
  runtime->config_text = ReadAll(packet.descriptors[0].get());
  runtime->config_source = setup.config_source;
  runtime->config = ParseConfig(runtime->config_text, setup.config_source);
  if (runtime->config.FindAccount(setup.account) == nullptr) return nullptr;
  std::map<char, std::pair<std::string, UniqueFd>> roots;
  for (std::size_t i = 0; i < setup.drive_letters.size(); ++i) {
    char letter = setup.drive_letters[i];
    roots.emplace(letter, std::make_pair(runtime->config.drives[letter],
                                         std::move(packet.descriptors[2 + i])));
  }
  runtime->drives = DriveTable::Adopt(std::move(roots));
  if (runtime->config.scheduler.enabled) {
    runtime->tasks_folder = ParseDrivePath(runtime->config.scheduler.folder, 32767).path;
  }
  if (setup.identity) runtime->identities.emplace(setup.account, *setup.identity);
  return runtime;
}

// True when the root process `service` is this process's parent and its end kills this one.
bool BoundToService(pid_t service) {
  return ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::getppid() == service;
}

class Worker {
 public:
  Worker(std::shared_ptr<const Runtime> runtime, const std::string& account)
      : context_(io_, std::move(runtime)),
        account_(*context_.runtime->config.FindAccount(account)),
        link_(io_, kWorkerLinkFd),
        signals_(io_, SIGTERM, SIGINT) {
    context_.session_ended = [this](uint64_t id) { Ended(id); };
  }

  ServiceContext& context() { return context_; }

  int Run() {
    asio::co_spawn(io_, Listen(), asio::detached);
    signals_.async_wait([this](const asio::error_code& error, int) {
      if (!error) asio::co_spawn(io_, Stop(context_.runtime->config.limits.grace_seconds),
                                 asio::detached);
    });
    io_.run();
    context_.pool.stop();
    // File work still blocked in the kernel after the sessions have gone is abandoned.
    JoinPoolWithin(context_.pool, kPoolJoinLimit);
    std::_Exit(0);
  }

 private:
  asio::awaitable<void> Listen() {
    while (!stopping_) {
      asio::error_code error;
      co_await link_.async_wait(asio::posix::descriptor_base::wait_read,
                                asio::redirect_error(asio::use_awaitable, error));
      if (error) break;
      Received received = ReceivePacket(kWorkerLinkFd, false);
      if (received.error == EAGAIN) continue;
      if (received.error != 0 || received.closed) break;
      switch (static_cast<LinkKind>(KindOf(received.data))) {
        case LinkKind::kSession:
          if (std::optional<SessionState> state = DecodeSession(received.data);
              state && received.descriptors.size() == 1 && !context_.stopping) {
            Session::StartLoggedIn(context_, account_, std::move(received.descriptors[0]),
                                   std::move(*state));
          }
          break;
        case LinkKind::kRevoke: {
          std::vector<Session*> sessions(context_.sessions.begin(), context_.sessions.end());
          for (Session* session : sessions) session->Revoke();
          break;
        }
        case LinkKind::kStop: {
          std::optional<uint64_t> grace = DecodeNumber(LinkKind::kStop, received.data);
          co_await Stop(static_cast<int>(grace.value_or(0)));
          co_return;
        }
        default:
          break;
      }
    }
    // The root process closed the link (this worker has no sessions left) or is gone.
    co_await Stop(0);
  }

  // Tells the root process that session `id` ended; queued while the link is full.
  void Ended(uint64_t id) {
    outbox_.push_back(EncodeNumber(LinkKind::kEnded, id));
    if (flushing_) return;
    flushing_ = true;
    asio::co_spawn(io_, Flush(), asio::detached);
  }

  asio::awaitable<void> Flush() {
    while (!outbox_.empty()) {
      int failed = SendPacket(kWorkerLinkFd, outbox_.front(), {});
      if (failed == 0) {
        outbox_.pop_front();
        continue;
      }
      if (failed != EAGAIN) break;
      asio::error_code error;
      co_await link_.async_wait(asio::posix::descriptor_base::wait_write,
                                asio::redirect_error(asio::use_awaitable, error));
      if (error) break;
    }
    outbox_.clear();  // the root process is gone: nobody counts them any more
    flushing_ = false;
  }

  asio::awaitable<void> Stop(int grace_seconds) {
    if (stopping_) co_return;
    stopping_ = true;
    co_await Session::EndAll(context_, grace_seconds);
    signals_.cancel();
    io_.stop();
  }

  asio::io_context io_{1};
  ServiceContext context_;
  const Account& account_;
  asio::posix::stream_descriptor link_;
  asio::signal_set signals_;
  std::deque<std::vector<uint8_t>> outbox_;  // session ends the link had no room for yet
  bool flushing_ = false;
  bool stopping_ = false;
};

}  // namespace

bool DropTo(const Identity& identity) {
  if (::setgroups(identity.groups.size(), identity.groups.data()) != 0 ||
      ::setresgid(identity.gid, identity.gid, identity.gid) != 0 ||
      ::setresuid(identity.uid, identity.uid, identity.uid) != 0) {
    return false;
  }
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  if (::getresuid(&ruid, &euid, &suid) != 0 || ::getresgid(&rgid, &egid, &sgid) != 0) return false;
  if (ruid != identity.uid || euid != identity.uid || suid != identity.uid ||
      rgid != identity.gid || egid != identity.gid || sgid != identity.gid) {
    return false;
  }
  if (identity.uid == 0) return true;  // an account that runs as root, as its configuration asks
  return ::setuid(0) != 0 && ::seteuid(0) != 0 && (identity.gid == 0 || ::setgid(0) != 0);
}

int RunWorker() {
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGHUP, SIG_IGN);  // reloads are the root process's
  Received packet = ReceivePacket(kWorkerLinkFd, true);
  std::optional<WorkerSetup> setup = DecodeSetup(packet.data);
  if (!setup || !BoundToService(setup->service)) return 1;
  std::shared_ptr<const Runtime> runtime;
  try {
    runtime = RuntimeFrom(*setup, packet);
  } catch (const pelmora::Error& error) {
    ServiceMessage("worker: " + error.Description());
  }
  std::size_t bytes = sizeof(std::atomic<int>) * kMaxWorkers;
  void* counts = packet.descriptors.size() < 2 ? MAP_FAILED
                                               : ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                                                        MAP_SHARED, packet.descriptors[1].get(), 0);
  packet.descriptors.clear();
  if (runtime == nullptr || counts == MAP_FAILED || setup->command_slot >= kMaxWorkers) return 1;
  if (setup->identity && !DropTo(*setup->identity)) {
    ServiceMessage("worker: cannot become user " + setup->identity->user + "; not serving");
    return 1;
  }
  // Changing the user cleared the parent-death signal.
  if (!BoundToService(setup->service) || ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return 1;
  Worker worker(runtime, setup->account);
  worker.context().running_commands.Share(static_cast<std::atomic<int>*>(counts), kMaxWorkers,
                                          setup->command_slot);
  return worker.Run();
}

}  // namespace pelmorad
