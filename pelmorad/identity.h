// The Linux identity an account's work runs with: the `run_as` user's uid, primary group and
// supplementary groups, looked up when the configuration is loaded. The account's worker process
// takes it on before it serves (worker.h), so everything the account's requests create is that
// user's.
//
//   std::optional<Identity> identity = LookUpIdentity("backup");
#ifndef PELMORAD_IDENTITY_H_
#define PELMORAD_IDENTITY_H_

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace pelmorad {

struct Identity {
  std::string user;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;  // supplementary groups, the primary one included
};

// The identity of Linux user `user`, or nullopt when the machine has no such user. Blocks on the
// user database (NSS).
std::optional<Identity> LookUpIdentity(const std::string& user);

// The user an account without `run_as` works as when the service runs as root.
inline constexpr char kDefaultAccountUser[] = "nobody";

}  // namespace pelmorad

#endif  // PELMORAD_IDENTITY_H_
