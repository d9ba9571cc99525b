#include "pelmorad/login_throttle.h"

#include <algorithm>

namespace pelmorad {
namespace {

constexpr std::size_t kPruneAbove = 4096;
constexpr int kMaxDoublings = 20;

std::string AddressKey(const std::string& address) { return "address " + address; }
std::string AccountKey(const std::string& account) { return "account " + account; }

}  // namespace

LoginThrottle::Entry& LoginThrottle::At(const std::string& key, Clock::time_point now) {
  Entry& entry = entries_[key];
  if (entry.failures > 0 && now - entry.last_failure > settings_.memory) entry.failures = 0;
  return entry;
}

int LoginThrottle::Count(const Entry& entry) const {
  // Parallel guesses are counted from the first failure on; before it, only beyond the allowance.
  if (entry.failures > 0) return entry.failures + entry.in_flight;
  return std::max(0, entry.in_flight - settings_.free_in_flight);
}

LoginThrottle::Clock::duration LoginThrottle::DelayFor(int count) const {
  if (count <= 0) return Clock::duration::zero();
  Clock::duration delay = settings_.step * std::min(count, settings_.free_failures);
  for (int doubling = settings_.free_failures; doubling < std::min(count, kMaxDoublings) &&
                                               delay < settings_.ceiling;
       ++doubling) {
    delay *= 2;
  }
  return std::min(delay, settings_.ceiling);
}

LoginThrottle::Clock::duration LoginThrottle::Begin(const std::string& address,
                                                    const std::string& account,
                                                    Clock::time_point now) {
  if (entries_.size() > kPruneAbove) Prune(now);
  Entry& by_address = At(AddressKey(address), now);
  Entry& by_account = At(AccountKey(account), now);
  int count = std::max(Count(by_address), Count(by_account));
  by_address.in_flight += 1;
  by_account.in_flight += 1;
  return DelayFor(count);
}

void LoginThrottle::Finish(const std::string& address, const std::string& account,
                           bool succeeded, Clock::time_point now) {
  for (const std::string& key : {AddressKey(address), AccountKey(account)}) {
    Entry& entry = At(key, now);
    entry.in_flight = std::max(0, entry.in_flight - 1);
    if (!succeeded) {
      entry.failures += 1;
      entry.last_failure = now;
    }
  }
  if (succeeded) At(AccountKey(account), now).failures = 0;
}

void LoginThrottle::Prune(Clock::time_point now) {
  std::erase_if(entries_, [&](const auto& item) {
    const Entry& entry = item.second;
    return entry.in_flight == 0 &&
           (entry.failures == 0 || now - entry.last_failure > settings_.memory);
  });
}

}  // namespace pelmorad
