// The Linux identity an account's work runs with: the `run_as` user's uid, primary group and
// supplementary groups, looked up when the configuration is loaded. File work on a pool thread
// names the identity that owns what it creates with an OwnerScope; the file functions hand every
// file or folder they create to that owner.
//
//   std::optional<Identity> identity = LookUpIdentity("backup");
//   OwnerScope scope(&*identity);
//   int32_t error = CreateFolder(drives, path);  // the new folder belongs to "backup"
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

// Runs this thread's file work as `owner` until the scope ends (nullptr: the service's own
// identity): when the service is root it switches the thread's file-system user and group
// (setfsuid, setfsgid) and its supplementary groups (the raw setgroups system call, which unlike
// glibc's wrapper changes only the calling thread), so the kernel's access checks, the owner of
// new files and its clearing of setuid bits all follow the account; the service's identity comes
// back when the scope ends. The service aborts rather than go on with the wrong identity should
// a switch fail. Scopes nest; each is used on one thread.
class OwnerScope {
 public:
  explicit OwnerScope(const Identity* owner);
  ~OwnerScope();
  OwnerScope(const OwnerScope&) = delete;
  OwnerScope& operator=(const OwnerScope&) = delete;

 private:
  const Identity* previous_;
  bool switched_ = false;
};

// Gives the file or folder open as `fd` to this thread's owner (nothing when there is none or the
// service is not root). Returns 0 or the errno of fchown.
int GiveToOwner(int fd);

// As GiveToOwner for `name` in folder `dirfd`, the name itself when it is a link.
int GiveToOwnerAt(int dirfd, const std::string& name);

}  // namespace pelmorad

#endif  // PELMORAD_IDENTITY_H_
