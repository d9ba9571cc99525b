#include "pelmorad/identity.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace pelmorad {
namespace {

constexpr int kMaxGroups = 1024;

thread_local const Identity* current_owner = nullptr;

bool ServiceIsRoot() { return ::geteuid() == 0; }

// The service's own supplementary groups, read once.
const std::vector<gid_t>& ServiceGroups() {
  static const std::vector<gid_t> groups = [] {
    int count = ::getgroups(0, nullptr);
    std::vector<gid_t> list(static_cast<std::size_t>(count > 0 ? count : 0));
    if (count > 0 && ::getgroups(count, list.data()) != count) list.clear();
    return list;
  }();
  return groups;
}

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

namespace {

// Sets this thread's file-system identity; false when the kernel did not take it.
bool SwitchThread(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
  if (::syscall(SYS_setgroups, groups.size(), groups.data()) != 0) return false;
  ::setfsgid(gid);
  ::setfsuid(uid);
  // Each call answers the value before it: asking again with -1 reads what is in force.
  return static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1))) == uid &&
         static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) == gid;
}

[[noreturn]] void AbortOnSwitch(const char* what) {
  std::fprintf(stderr, "pelmorad: cannot %s a file-system identity; stopping\n", what);
  std::abort();
}

}  // namespace

OwnerScope::OwnerScope(const Identity* owner) : previous_(current_owner) {
  current_owner = owner;
  if (owner == nullptr || !ServiceIsRoot() || previous_ != nullptr) return;
  if (owner->uid == ::geteuid() && owner->gid == ::getegid()) return;
  ServiceGroups();  // read before the first switch, so it holds the service's own
  if (!SwitchThread(owner->uid, owner->gid, owner->groups)) AbortOnSwitch("take on");
  switched_ = true;
}

OwnerScope::~OwnerScope() {
  current_owner = previous_;
  if (switched_ && !SwitchThread(::geteuid(), ::getegid(), ServiceGroups())) {
    AbortOnSwitch("give back");
  }
}

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
