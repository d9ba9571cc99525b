// The root process's side of the account workers: one `pelmorad` process per account with live
// sessions, started on demand by executing the service's own binary in worker mode, which drops
// to the account's user before it serves (worker.h). The pool passes each session that has just
// logged in to its account's worker, counts the sessions the workers serve for the service-wide
// limits, ends workers that have had no session for kWorkerLinger, and carries reloads and the
// stop to them. Used on the I/O thread only.
//
//   WorkerPool workers(context);   // before the first session
//   context.hand_off = [&](const Account& a, SessionState s, UniqueFd c) {
//     return workers.HandOff(a, std::move(s), std::move(c));
//   };
#ifndef PELMORAD_WORKER_POOL_H_
#define PELMORAD_WORKER_POOL_H_

#include <sys/types.h>

#include <asio/awaitable.hpp>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "pelmorad/runtime.h"
#include "pelmorad/worker_link.h"

namespace pelmorad {

// How long a worker without sessions waits for another before it ends.
inline constexpr auto kWorkerLinger = std::chrono::seconds(2);
// Workers at once (the places in the shared command count).
inline constexpr std::size_t kMaxWorkers = 4096;

class WorkerPool {
 public:
  // Makes the shared command count and has context.running_commands use it. Throws
  // pelmora::Error 8 when the memory cannot be had.
  explicit WorkerPool(ServiceContext& context);
  // Kills the workers still running.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Passes `connection`, logged in to `account` under the service's configuration, to the
  // account's worker, started first when none runs. False when no worker could take it (the
  // connection is then closed).
  bool HandOff(const Account& account, SessionState state, UniqueFd connection);

  // After a reload to `runtime`: the workers of removed or changed accounts end their sessions
  // at once; the others go on serving the sessions they have, and new sessions go to workers
  // started with the new configuration.
  void Reconfigured(const Runtime& runtime);

  // Tells every worker that the service stops: they end their sessions as the service does
  // (transfers run on for `grace_seconds`) and exit.
  void Stop(int grace_seconds);

  // True when no worker is left.
  bool Empty() const { return workers_.empty(); }
  // SIGKILLs every worker still running.
  void KillAll();

 private:
  struct Worker;
  std::shared_ptr<Worker> Spawn(const Account& account);
  // Sends a started worker what it needs before it serves; false when it could not.
  bool SendSetup(Worker& worker, const Account& account, const Identity* identity);
  bool Send(const std::shared_ptr<Worker>& worker, std::vector<uint8_t> packet, UniqueFd fd);
  asio::awaitable<void> Flush(std::shared_ptr<Worker> worker);
  asio::awaitable<void> Listen(std::shared_ptr<Worker> worker);
  void WatchExit(const std::shared_ptr<Worker>& worker);
  void SessionEnded(Worker& worker, uint64_t id);
  // No more sessions go to `worker`; its link closes once its last session has ended.
  void Retire(Worker& worker);
  void CloseWhenEmpty(Worker& worker);
  void Reaped(const std::shared_ptr<Worker>& worker);

  ServiceContext& context_;
  UniqueFd counts_fd_;
  std::atomic<int>* counts_ = nullptr;
  std::vector<bool> slot_used_;
  std::map<std::string, std::shared_ptr<Worker>> by_account_;
  std::set<std::shared_ptr<Worker>> workers_;
  uint64_t next_id_ = 1;
};

}  // namespace pelmorad

#endif  // PELMORAD_WORKER_POOL_H_
