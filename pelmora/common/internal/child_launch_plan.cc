// A child process's launch plan: identity, environment and exec arrays (see
// child_launch_plan.h).
#include "pelmora/common/internal/child_launch_plan.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"

namespace pelmora::internal {
namespace {

constexpr char kPath[] = "PATH=/usr/local/bin:/usr/bin:/bin";

Error StartError(int number) { return Error(number, DescribeError(number), "ChildProcess"); }

std::optional<Identity> LookUpUser(const char* name, uid_t uid) {
  struct passwd entry {};
  struct passwd* found = nullptr;
  std::vector<char> buffer(16384);
  int rc = name != nullptr ? getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found)
                           : getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
  if (rc != 0 || found == nullptr) return std::nullopt;
  Identity identity;
  identity.uid = entry.pw_uid;
  identity.gid = entry.pw_gid;
  identity.name = entry.pw_name;
  identity.home = entry.pw_dir;
  identity.shell = entry.pw_shell;
  return identity;
}

std::vector<gid_t> GroupsOf(const Identity& identity) {
  int count = 64;
  std::vector<gid_t> groups(count);
  while (getgrouplist(identity.name.c_str(), identity.gid, groups.data(), &count) < 0) {
    if (count <= static_cast<int>(groups.size())) count = static_cast<int>(groups.size()) * 2;
    groups.resize(count);
  }
  groups.resize(count);
  return groups;
}

// The identity for `run_as`: that user when the caller is root, otherwise the current user (with
// what the password database knows of it, or only its uid).
Identity ResolveIdentity(const std::string& run_as) {
  uid_t self = geteuid();
  if (self == 0 && !run_as.empty()) {
    std::optional<Identity> user = LookUpUser(run_as.c_str(), 0);
    if (!user) throw StartError(1326);
    user->change = true;
    user->groups = GroupsOf(*user);
    return *user;
  }
  std::optional<Identity> current = LookUpUser(nullptr, self);
  if (current) return *current;
  Identity unknown;
  unknown.uid = self;
  unknown.name = std::to_string(self);
  return unknown;
}

std::vector<std::string> BuildEnvironment(const Identity& identity,
                                          const std::vector<std::string>& extra) {
  std::vector<std::string> env = {
      "HOME=" + (identity.home.empty() ? std::string("/") : identity.home), "USER=" + identity.name,
      "LOGNAME=" + identity.name,
      "SHELL=" + (identity.shell.empty() ? std::string("/bin/sh") : identity.shell), kPath};
  for (const std::string& entry : extra) {
    std::string_view name = std::string_view(entry).substr(0, entry.find('='));
    std::erase_if(env, [&](const std::string& e) {
      return e.size() > name.size() && e[name.size()] == '=' && e.starts_with(name);
    });
    env.push_back(entry);
  }
  return env;
}

}  // namespace

std::string FindProgramOnPath(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  std::string_view folders = std::string_view(kPath).substr(5);
  while (!folders.empty()) {
    std::string_view folder = folders.substr(0, folders.find(':'));
    std::string candidate = std::string(folder) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    folders.remove_prefix(std::min(folders.size(), folder.size() + 1));
  }
  return name;
}

LaunchPlan MakePlan(const ChildSpec& launch) {
  LaunchPlan plan;
  plan.identity = ResolveIdentity(launch.run_as);
  plan.folder_given = !launch.working_folder.empty();
  plan.subreaper = launch.track_descendants;
  plan.folder = plan.folder_given ? launch.working_folder : plan.identity.home;
  if (plan.folder.empty()) plan.folder = "/";
  plan.strings = launch.arguments.empty()
                     ? std::vector<std::string>{launch.shell, "-c", launch.command_line}
                     : launch.arguments;
  size_t argument_count = plan.strings.size();
  if (!launch.arguments.empty()) plan.strings[0] = FindProgramOnPath(plan.strings[0]);
  for (std::string& entry : BuildEnvironment(plan.identity, launch.environment)) {
    plan.strings.push_back(std::move(entry));
  }
  for (size_t i = 0; i < plan.strings.size(); ++i) {
    (i < argument_count ? plan.argv : plan.envp).push_back(plan.strings[i].data());
  }
  plan.argv.push_back(nullptr);
  plan.envp.push_back(nullptr);
  return plan;
}

}  // namespace pelmora::internal
