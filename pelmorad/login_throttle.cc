#include "pelmorad/login_throttle.h"

namespace pelmorad {
namespace {

constexpr std::size_t kPruneAbove = 4096;
constexpr int kMaxDelaySteps = 8;

}  // namespace

LoginThrottle::LoginThrottle(int failures, Clock::duration lockout, Clock::duration delay_step)
    : failures_(failures), lockout_(lockout), delay_step_(delay_step) {}

LoginThrottle::Decision LoginThrottle::Check(const std::string& address, Clock::time_point now) {
  Decision decision;
  auto found = entries_.find(address);
  if (found == entries_.end()) return decision;
  Entry& entry = found->second;
  if (now < entry.locked_until) {
    decision.locked = true;
    return decision;
  }
  if (now - entry.last_failure > lockout_ && entry.locked_until <= now) entry.failures = 0;
  decision.delay = delay_step_ * std::min(entry.failures, kMaxDelaySteps);
  return decision;
}

void LoginThrottle::Failed(const std::string& address, Clock::time_point now) {
  if (entries_.size() > kPruneAbove) Prune(now);
  Entry& entry = entries_[address];
  entry.failures += 1;
  entry.last_failure = now;
  if (entry.failures >= failures_) {
    entry.locked_until = now + lockout_;
    entry.failures = 0;
  }
}

void LoginThrottle::Succeeded(const std::string& address) { entries_.erase(address); }

void LoginThrottle::Prune(Clock::time_point now) {
  std::erase_if(entries_, [&](const auto& item) {
    return item.second.locked_until <= now && now - item.second.last_failure > lockout_;
  });
}

}  // namespace pelmorad
