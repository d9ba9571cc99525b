// What every session shares: the configuration with its opened drives (swapped as a whole on
// SIGHUP; a session keeps the one it started with), the thread pool, the login throttle and the
// registry of live sessions that the limits and the shutdown use.
#ifndef PELMORAD_RUNTIME_H_
#define PELMORAD_RUNTIME_H_

#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "pelmorad/config.h"
#include "pelmorad/drive_path.h"
#include "pelmorad/drives.h"
#include "pelmorad/identity.h"
#include "pelmorad/login_throttle.h"
#include "pelmorad/password.h"

namespace pelmorad {

// One loaded configuration.
struct Runtime {
  Config config;
  std::string config_text;    // as read, for the account workers
  std::string config_source;  // its path
  std::shared_ptr<const DriveTable> drives;
  // The identity of each account that names a `run_as` user, by account name.
  std::map<std::string, Identity> identities;
  // The scheduler's folder when the scheduler is on: only accounts with `tasks` or `commands`
  // may change what lies in it.
  std::optional<DrivePath> tasks_folder;

  // The identity `account`'s work runs with; nullptr for the service's own.
  const Identity* IdentityOf(const Account& account) const;
  // True when `account` may change `path` as far as the Tasks folder goes.
  bool MayChangeTasks(const Account& account, const DrivePath& path) const;
};

// Loads `config_path` and opens its drives. Throws what LoadConfig, CheckAccounts and
// DriveTable::Open throw.
std::shared_ptr<const Runtime> LoadRuntime(const std::string& config_path);

// Whether a new connection is dropped while `waiting` connections have not logged in yet: never
// below limits.unauthenticated_start, always from limits.unauthenticated on, and in between with
// a chance rising from 30 % to 100 % (`chance` is a uniform draw from [0, 1)).
bool DropUnauthenticated(int waiting, const Limits& limits, double chance);

// Builds a runtime from a parsed configuration (checks its accounts, opens its drives).
std::shared_ptr<const Runtime> MakeRuntime(Config config);

// Checks what the accounts ask of this machine and looks up their identities: the `run_as`
// user's, or kDefaultAccountUser's for an account without one when the service is root. Throws
// pelmora::Error 87 naming the account when its `run_as` user does not exist, or when the service
// runs as root (`service_is_root`) and an account with `commands` or `tasks` names no `run_as`
// user (its commands and tasks would run as root). Blocks on the user database.
std::map<std::string, Identity> CheckAccounts(const Config& config, bool service_is_root);

// True when a session that logged in to `account` under `before` may go on under `after`: the
// account, its identity, the drive map and whether there is a Tasks folder are all unchanged.
bool AccountUnchanged(const Runtime& before, const Account& account, const Runtime& after);

// The number of commands running in all of the service's processes: each process counts its own
// in a slot of a table that every process maps (MAP_SHARED), so one process's sum holds for all.
class CommandCount {
 public:
  // Until Share, counts this process alone.
  CommandCount() = default;
  CommandCount(const CommandCount&) = delete;
  CommandCount& operator=(const CommandCount&) = delete;
  // Counts in `slots[own]` of the `count` shared slots.
  void Share(std::atomic<int>* slots, std::size_t count, std::size_t own);
  // Takes a place when fewer than `limit` commands run; false (nothing taken) otherwise. Two
  // processes racing for the last place may both be refused, never both admitted.
  bool TryTake(int limit);
  // Gives a place back.
  void Give();
  int Total() const;

 private:
  std::atomic<int> local_{0};
  std::atomic<int>* slots_ = &local_;
  std::size_t count_ = 1;
  std::size_t own_ = 0;
};

// Joins `pool` on a helper thread and waits for it at most `limit`; false when a pool thread is
// still blocked (the helper is then left behind with the process about to end).
bool JoinPoolWithin(asio::thread_pool& pool, std::chrono::milliseconds limit);

class Session;
struct SessionState;

// The service-wide state. Touched only on the I/O thread, except `pool`, which runs file work,
// and `passwords`, which the pool's login checks share.
struct ServiceContext {
  ServiceContext(asio::io_context& io_context, std::shared_ptr<const Runtime> first);

  asio::io_context& io;
  asio::thread_pool pool;
  std::shared_ptr<const Runtime> runtime;
  LoginThrottle throttle;
  VerifiedPasswords passwords;  // used from the pool
  std::set<Session*> sessions;
  std::map<std::string, int> sessions_per_address;
  int unauthenticated = 0;  // sessions not yet logged in
  CommandCount running_commands;
  bool stopping = false;
  // In the root process: hands a session that has just logged in to its account's worker,
  // which then owns `connection`; false when none could take it.
  std::function<bool(const Account&, SessionState, UniqueFd connection)> hand_off;
  // Sessions the workers serve, in all and per client address (for the session limits).
  int served_by_workers = 0;
  // In a worker: tells the root process that the session handed over as `id` ended.
  std::function<void(uint64_t id)> session_ended;
};

}  // namespace pelmorad

#endif  // PELMORAD_RUNTIME_H_
