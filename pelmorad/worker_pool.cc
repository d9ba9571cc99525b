#include "pelmorad/worker_pool.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <deque>

#include "pelmora/common/error.h"
#include "pelmorad/audit.h"
#include "pelmorad/worker.h"

extern char** environ;

namespace pelmorad {

struct WorkerPool::Worker {
  Worker(asio::io_context& io, int link_fd, int exit_fd)
      : link(io, link_fd), exit(io, exit_fd), linger(io) {}

  struct Outgoing {
    std::vector<uint8_t> packet;
    UniqueFd fd;
  };

  std::string account;
  std::shared_ptr<const Runtime> runtime;  // the configuration it was started with
  pid_t pid = -1;
  std::size_t slot = 0;
  asio::posix::stream_descriptor link;
  asio::posix::stream_descriptor exit;  // a process descriptor: readable once it has ended
  asio::steady_timer linger;
  std::map<uint64_t, std::string> sessions;  // id -> the client's address
  std::deque<Outgoing> outbox;               // waiting for room in the link
  bool flushing = false;
  bool retired = false;
};

namespace {

// A descriptor holding `text`, read from its start.
UniqueFd TextDescriptor(const std::string& text) {
  UniqueFd fd(::memfd_create("pelmorad-config", MFD_CLOEXEC));
  if (!fd) return fd;
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t wrote = ::write(fd.get(), text.data() + done, text.size() - done);
    if (wrote <= 0) return UniqueFd();
    done += static_cast<std::size_t>(wrote);
  }
  return fd;
}

struct Launched {
  pid_t pid = -1;
  UniqueFd link;  // the root process's end, non-blocking
  UniqueFd exit;  // a process descriptor
};

// Starts `pelmorad --account-worker` with the other end of a new link as kWorkerLinkFd.
std::optional<Launched> LaunchWorkerProcess() {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return std::nullopt;
  Launched launched;
  launched.link = UniqueFd(pair[0]);
  UniqueFd theirs(pair[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, theirs.get(), kWorkerLinkFd);
  // Nothing else of the root process's: not the listeners, nor other clients' connections.
  posix_spawn_file_actions_addclosefrom_np(&actions, kWorkerLinkFd + 1);
  char name[] = "pelmorad";
  char* argv[] = {name, const_cast<char*>(kWorkerOption), nullptr};
  int failed = ::posix_spawn(&launched.pid, "/proc/self/exe", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) return std::nullopt;
  launched.exit = UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, launched.pid, 0)));
  if (!launched.exit) {
    ::kill(launched.pid, SIGKILL);
    ::waitpid(launched.pid, nullptr, 0);
    return std::nullopt;
  }
  ::fcntl(launched.link.get(), F_SETFL, ::fcntl(launched.link.get(), F_GETFL) | O_NONBLOCK);
  return launched;
}

}  // namespace

WorkerPool::WorkerPool(ServiceContext& context)
    : context_(context), slot_used_(kMaxWorkers, false) {
  std::size_t bytes = sizeof(std::atomic<int>) * kMaxWorkers;
  counts_fd_ = UniqueFd(::memfd_create("pelmorad-commands", MFD_CLOEXEC));
  void* shared = MAP_FAILED;
  if (counts_fd_ && ::ftruncate(counts_fd_.get(), static_cast<off_t>(bytes)) == 0) {
    shared = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, counts_fd_.get(), 0);
  }
  if (shared == MAP_FAILED) {
    throw pelmora::Error(8, "cannot map the shared command count", "pelmorad");
  }
  counts_ = static_cast<std::atomic<int>*>(shared);
  slot_used_[0] = true;  // the root process's own, which runs no commands
  context_.running_commands.Share(counts_, kMaxWorkers, 0);
}

WorkerPool::~WorkerPool() { KillAll(); }

void WorkerPool::KillAll() {
  for (const auto& worker : workers_) ::kill(worker->pid, SIGKILL);  // not reaped yet: still its
}

std::shared_ptr<WorkerPool::Worker> WorkerPool::Spawn(const Account& account) {
  const Identity* identity = context_.runtime->IdentityOf(account);
  if (::geteuid() == 0 && identity == nullptr) return nullptr;  // never an account as root
  auto free_slot = std::find(slot_used_.begin(), slot_used_.end(), false);
  if (free_slot == slot_used_.end()) return nullptr;
  std::optional<Launched> launched = LaunchWorkerProcess();
  if (!launched) return nullptr;
  auto worker = std::make_shared<Worker>(context_.io, launched->link.release(),
                                         launched->exit.release());
  worker->account = account.name;
  worker->runtime = context_.runtime;
  worker->pid = launched->pid;
  worker->slot = static_cast<std::size_t>(free_slot - slot_used_.begin());
  *free_slot = true;
  counts_[worker->slot].store(0);
  workers_.insert(worker);
  WatchExit(worker);
  if (!SendSetup(*worker, account, identity)) {
    ::kill(worker->pid, SIGKILL);
    return nullptr;  // WatchExit reaps it
  }
  asio::co_spawn(context_.io, Listen(worker), asio::detached);
  ServiceMessage(fmt::format("account {}: worker {} serves as user {}", account.name, worker->pid,
                             ::geteuid() == 0 ? identity->user : std::string("of the service")));
  return worker;
}

bool WorkerPool::SendSetup(Worker& worker, const Account& account, const Identity* identity) {
  const Runtime& runtime = *worker.runtime;
  UniqueFd config;
  try {
    config = TextDescriptor(WorkerConfigText(runtime.config_text, account.name));
  } catch (const std::exception&) {
    return false;  // the loaded text parses: this is for an out-of-memory
  }
  WorkerSetup setup;
  setup.account = account.name;
  setup.config_source = runtime.config_source;
  setup.service = ::getpid();
  setup.command_slot = static_cast<uint32_t>(worker.slot);
  if (::geteuid() == 0) setup.identity = *identity;
  std::vector<int> descriptors = {config.get(), counts_fd_.get()};
  for (const auto& [letter, fd] : runtime.drives->Descriptors()) {
    setup.drive_letters.push_back(letter);
    descriptors.push_back(fd);
  }
  // The link is empty: the set-up fits whatever its size.
  return config &&
         SendPacket(worker.link.native_handle(), EncodeSetup(setup), descriptors) == 0;
}

bool WorkerPool::HandOff(const Account& account, SessionState state, UniqueFd connection) {
  if (context_.stopping) return false;
  std::shared_ptr<Worker> worker;
  if (auto found = by_account_.find(account.name); found != by_account_.end()) {
    worker = found->second;
  } else {
    worker = Spawn(account);
    if (worker == nullptr) return false;
    by_account_[account.name] = worker;
  }
  state.id = next_id_++;
  std::string address = state.address;
  if (!Send(worker, EncodeSession(state), std::move(connection))) return false;
  worker->linger.cancel();
  worker->sessions.emplace(state.id, address);
  context_.served_by_workers += 1;
  context_.sessions_per_address[address] += 1;
  return true;
}

bool WorkerPool::Send(const std::shared_ptr<Worker>& worker, std::vector<uint8_t> packet,
                      UniqueFd fd) {
  if (!worker->link.is_open()) return false;
  if (worker->outbox.empty()) {
    std::vector<int> descriptors;
    if (fd) descriptors.push_back(fd.get());
    int error = SendPacket(worker->link.native_handle(), packet, descriptors);
    if (error == 0) return true;
    if (error != EAGAIN) return false;
  }
  // Bounded by the session limits: each queued packet is a session or a single notice.
  worker->outbox.push_back({std::move(packet), std::move(fd)});
  if (!worker->flushing) {
    worker->flushing = true;
    asio::co_spawn(context_.io, Flush(worker), asio::detached);
  }
  return true;
}

asio::awaitable<void> WorkerPool::Flush(std::shared_ptr<Worker> worker) {
  while (!worker->outbox.empty() && worker->link.is_open()) {
    asio::error_code error;
    co_await worker->link.async_wait(asio::posix::descriptor_base::wait_write,
                                     asio::redirect_error(asio::use_awaitable, error));
    if (error) break;
    Worker::Outgoing& next = worker->outbox.front();
    std::vector<int> descriptors;
    if (next.fd) descriptors.push_back(next.fd.get());
    int failed = SendPacket(worker->link.native_handle(), next.packet, descriptors);
    if (failed == EAGAIN) continue;
    if (failed != 0) break;
    worker->outbox.pop_front();
  }
  worker->outbox.clear();  // a link that failed: the connections close, the exit cleans up
  worker->flushing = false;
  if (worker->retired) CloseWhenEmpty(*worker);
}

asio::awaitable<void> WorkerPool::Listen(std::shared_ptr<Worker> worker) {
  while (worker->link.is_open()) {
    asio::error_code error;
    co_await worker->link.async_wait(asio::posix::descriptor_base::wait_read,
                                     asio::redirect_error(asio::use_awaitable, error));
    if (error || !worker->link.is_open()) break;
    Received received = ReceivePacket(worker->link.native_handle(), false);
    if (received.error == EAGAIN) continue;
    if (received.error != 0 || received.closed) break;
    // The worker runs as the account: only an end of one of its own sessions counts.
    std::optional<uint64_t> ended = DecodeNumber(LinkKind::kEnded, received.data);
    if (ended) SessionEnded(*worker, *ended);
  }
}

void WorkerPool::SessionEnded(Worker& worker, uint64_t id) {
  auto found = worker.sessions.find(id);
  if (found == worker.sessions.end()) return;
  context_.served_by_workers -= 1;
  if (--context_.sessions_per_address[found->second] <= 0) {
    context_.sessions_per_address.erase(found->second);
  }
  worker.sessions.erase(found);
  if (!worker.sessions.empty()) return;
  if (worker.retired) {
    CloseWhenEmpty(worker);
    return;
  }
  worker.linger.expires_after(kWorkerLinger);
  worker.linger.async_wait([this, &worker](const asio::error_code& error) {
    if (!error && worker.sessions.empty()) Retire(worker);
  });
}

void WorkerPool::Retire(Worker& worker) {
  worker.retired = true;
  auto found = by_account_.find(worker.account);
  if (found != by_account_.end() && found->second.get() == &worker) by_account_.erase(found);
  CloseWhenEmpty(worker);
}

void WorkerPool::CloseWhenEmpty(Worker& worker) {
  // The worker ends when its link closes; every session handed to it has ended by then.
  if (worker.sessions.empty() && worker.outbox.empty()) {
    asio::error_code ignored;
    worker.link.close(ignored);
  }
}

void WorkerPool::WatchExit(const std::shared_ptr<Worker>& worker) {
  worker->exit.async_wait(asio::posix::descriptor_base::wait_read,
                          [this, worker](const asio::error_code& error) {
                            if (error) return;  // the pool is going away
                            ::waitpid(worker->pid, nullptr, WNOHANG);
                            Reaped(worker);
                          });
}

void WorkerPool::Reaped(const std::shared_ptr<Worker>& worker) {
  // Its sessions ended with it (it held their only descriptors).
  worker->retired = true;
  while (!worker->sessions.empty()) SessionEnded(*worker, worker->sessions.begin()->first);
  worker->linger.cancel();
  auto found = by_account_.find(worker->account);
  if (found != by_account_.end() && found->second == worker) by_account_.erase(found);
  asio::error_code ignored;
  worker->link.close(ignored);
  worker->exit.close(ignored);
  counts_[worker->slot].store(0);  // commands it counted died with it or are its own now
  slot_used_[worker->slot] = false;
  workers_.erase(worker);
}

void WorkerPool::Reconfigured(const Runtime& runtime) {
  for (const auto& worker : std::vector<std::shared_ptr<Worker>>(workers_.begin(), workers_.end())) {
    if (worker->retired) continue;
    const Account* account = worker->runtime->config.FindAccount(worker->account);
    if (account != nullptr && AccountUnchanged(*worker->runtime, *account, runtime)) {
      // Its sessions go on; new ones get the new configuration.
      if (runtime.config_text != worker->runtime->config_text) Retire(*worker);
      continue;
    }
    Send(worker, EncodeNumber(LinkKind::kRevoke, 0), UniqueFd());
    Retire(*worker);
  }
}

void WorkerPool::Stop(int grace_seconds) {
  for (const auto& worker : workers_) {
    Send(worker, EncodeNumber(LinkKind::kStop, static_cast<uint64_t>(grace_seconds)), UniqueFd());
  }
  by_account_.clear();
  for (const auto& worker : workers_) worker->retired = true;
}

}  // namespace pelmorad
