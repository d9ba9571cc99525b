#include "pelmorad/identity.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>

namespace pelmorad {
namespace {

constexpr int kMaxGroups = 1024;

thread_local const Identity* current_owner = nullptr;

bool ServiceIsRoot() { return ::geteuid() == 0; }

}  // namespace

std::optional<Identity> LookUpIdentity(const std::string& user) {
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr) {
    return std::nullopt;
  }
  Identity identity;
  identity.user = user;
  identity.uid = found->pw_uid;
  identity.gid = found->pw_gid;
  int count = kMaxGroups;
  identity.groups.resize(static_cast<std::size_t>(count));
  if (::getgrouplist(user.c_str(), found->pw_gid, identity.groups.data(), &count) < 0) {
    count = 1;
    identity.groups[0] = found->pw_gid;
  }
  identity.groups.resize(static_cast<std::size_t>(count));
  return identity;
}

OwnerScope::OwnerScope(const Identity* owner) : previous_(current_owner) {
  current_owner = owner;
}

OwnerScope::~OwnerScope() { current_owner = previous_; }

int GiveToOwner(int fd) {
  if (current_owner == nullptr || !ServiceIsRoot()) return 0;
  return ::fchown(fd, current_owner->uid, current_owner->gid) == 0 ? 0 : errno;
}

int GiveToOwnerAt(int dirfd, const std::string& name) {
  if (current_owner == nullptr || !ServiceIsRoot()) return 0;
  return ::fchownat(dirfd, name.c_str(), current_owner->uid, current_owner->gid,
                    AT_SYMLINK_NOFOLLOW) == 0
             ? 0
             : errno;
}

}  // namespace pelmorad
