// What every session shares: the configuration with its opened drives (swapped as a whole on
// SIGHUP; a session keeps the one it started with), the thread pool, the login throttle and the
// registry of live sessions that the limits and the shutdown use.
#ifndef PELMORAD_RUNTIME_H_
#define PELMORAD_RUNTIME_H_

#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
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

class Session;

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
  int running_commands = 0;
  bool stopping = false;
};

}  // namespace pelmorad

#endif  // PELMORAD_RUNTIME_H_
