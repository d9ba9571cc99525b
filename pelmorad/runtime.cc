#include "pelmorad/runtime.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

#include "pelmora/common/error.h"

namespace pelmorad {

std::map<std::string, Identity> CheckAccounts(const Config& config, bool service_is_root) {
  std::map<std::string, Identity> identities;
  for (const auto& [name, account] : config.accounts) {
    if (account.run_as.empty() && service_is_root && !account.commands && !account.tasks) {
      // The file work of an account without a user of its own runs as nobody in particular.
      std::optional<Identity> fallback = LookUpIdentity(kDefaultAccountUser);
      if (!fallback) {
        throw pelmora::Error(
            87,
            fmt::format("accounts.{}: names no run_as user and this machine has no user \"{}\" "
                        "to run its file work as",
                        name, kDefaultAccountUser),
            "pelmorad");
      }
      identities.emplace(name, std::move(*fallback));
      continue;
    }
    if (account.run_as.empty()) {
      if (service_is_root && (account.commands || account.tasks)) {
        throw pelmora::Error(
            87,
            fmt::format("accounts.{}: may run {} but names no run_as user, so they would run as "
                        "root; name the Linux user they run as (run_as = \"root\" only if you "
                        "mean it)",
                        name, account.commands ? "commands" : "tasks"),
            "pelmorad");
      }
      continue;
    }
    std::optional<Identity> identity = LookUpIdentity(account.run_as);
    if (!identity) {
      throw pelmora::Error(87,
                           fmt::format("accounts.{}.run_as: \"{}\" is no user of this machine",
                                       name, account.run_as),
                           "pelmorad");
    }
    identities.emplace(name, std::move(*identity));
  }
  return identities;
}

const Identity* Runtime::IdentityOf(const Account& account) const {
  auto found = identities.find(account.name);
  return found == identities.end() ? nullptr : &found->second;
}

bool Runtime::MayChangeTasks(const Account& account, const DrivePath& path) const {
  if (!tasks_folder || account.commands || account.tasks) return true;
  // Moving or deleting a folder that holds the Tasks folder changes it too.
  return !tasks_folder->Contains(path) && !path.Contains(*tasks_folder);
}

bool AccountUnchanged(const Runtime& before, const Account& account, const Runtime& after) {
  const Account* now = after.config.FindAccount(account.name);
  if (now == nullptr || !(*now == account)) return false;
  const Identity* was = before.IdentityOf(account);
  const Identity* is = after.IdentityOf(*now);
  if ((was == nullptr) != (is == nullptr)) return false;
  if (was != nullptr &&
      (was->uid != is->uid || was->gid != is->gid || was->groups != is->groups)) {
    return false;
  }
  return after.config.drives == before.config.drives &&
         after.tasks_folder.has_value() == before.tasks_folder.has_value();
}

void CommandCount::Share(std::atomic<int>* slots, std::size_t count, std::size_t own) {
  slots_ = slots;
  count_ = count;
  own_ = own;
}

bool CommandCount::TryTake(int limit) {
  slots_[own_].fetch_add(1);
  if (Total() <= limit) return true;
  slots_[own_].fetch_sub(1);
  return false;
}

void CommandCount::Give() { slots_[own_].fetch_sub(1); }

int CommandCount::Total() const {
  int total = 0;
  for (std::size_t i = 0; i < count_; ++i) total += slots_[i].load();
  return total;
}

bool DropUnauthenticated(int waiting, const Limits& limits, double chance) {
  if (waiting < limits.unauthenticated_start) return false;
  if (waiting >= limits.unauthenticated) return true;
  constexpr double kFirstRate = 0.3;
  double span = limits.unauthenticated - limits.unauthenticated_start;
  double rate = kFirstRate + (1.0 - kFirstRate) * (waiting - limits.unauthenticated_start) / span;
  return chance < rate;
}

std::shared_ptr<const Runtime> MakeRuntime(Config config) {
  auto runtime = std::make_shared<Runtime>();
  runtime->identities = CheckAccounts(config, ::geteuid() == 0);
  runtime->drives = DriveTable::Open(config.drives);
  if (config.scheduler.enabled) {
    runtime->tasks_folder = ParseDrivePath(config.scheduler.folder, 32767).path;
  }
  runtime->config = std::move(config);
  return runtime;
}

std::shared_ptr<const Runtime> LoadRuntime(const std::string& config_path) {
  std::string text;
  Config config = LoadConfig(config_path, &text);
  auto runtime = std::const_pointer_cast<Runtime>(MakeRuntime(std::move(config)));
  runtime->config_text = std::move(text);
  runtime->config_source = config_path;
  return runtime;
}

bool JoinPoolWithin(asio::thread_pool& pool, std::chrono::milliseconds limit) {
  auto joined = std::make_shared<std::promise<void>>();
  std::future<void> done = joined->get_future();
  std::thread([&pool, joined] {
    pool.join();
    joined->set_value();
  }).detach();
  return done.wait_for(limit) == std::future_status::ready;
}

ServiceContext::ServiceContext(asio::io_context& io_context, std::shared_ptr<const Runtime> first)
    : io(io_context),
      pool(static_cast<std::size_t>(first->config.limits.workers)),
      runtime(std::move(first)),
      throttle({.free_failures = runtime->config.limits.login_failures,
                .memory = std::chrono::seconds(runtime->config.limits.lockout_seconds),
                .step = std::chrono::milliseconds(runtime->config.limits.login_delay_ms),
                .ceiling = std::chrono::milliseconds(runtime->config.limits.login_delay_max_ms),
                .free_in_flight = runtime->config.limits.unauthenticated_start}) {}

}  // namespace pelmorad
