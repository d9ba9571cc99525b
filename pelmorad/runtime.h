// What every session shares: the configuration with its opened drives (swapped as a whole on
// SIGHUP; a session keeps the one it started with), the thread pool, the login throttle and the
// registry of live sessions that the limits and the shutdown use.
#ifndef PELMORAD_RUNTIME_H_
#define PELMORAD_RUNTIME_H_

#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "pelmorad/config.h"
#include "pelmorad/drives.h"
#include "pelmorad/login_throttle.h"
#include "pelmorad/password.h"

namespace pelmorad {

// One loaded configuration.
struct Runtime {
  Config config;
  std::shared_ptr<const DriveTable> drives;
};

// Loads `config_path` and opens its drives. Throws what LoadConfig and DriveTable::Open throw.
std::shared_ptr<const Runtime> LoadRuntime(const std::string& config_path);

// Builds a runtime from a parsed configuration (opens its drives).
std::shared_ptr<const Runtime> MakeRuntime(Config config);

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
  int running_commands = 0;
  bool stopping = false;
};

}  // namespace pelmorad

#endif  // PELMORAD_RUNTIME_H_
