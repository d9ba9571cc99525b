#include "pelmorad/identity.h"

#include <grp.h>
#include <pwd.h>

namespace pelmorad {
namespace {

constexpr int kMaxGroups = 1024;

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

}  // namespace pelmorad
