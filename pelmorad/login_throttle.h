// Failed logins per client address: each failure delays the next refusal a little more, and
// after `failures` of them the address is refused outright for `lockout`.
//
//   LoginThrottle throttle(5, std::chrono::seconds(60), std::chrono::milliseconds(250));
//   LoginThrottle::Decision decision = throttle.Check(address, now);
//   if (decision.locked) RefuseWithoutChecking();
#ifndef PELMORAD_LOGIN_THROTTLE_H_
#define PELMORAD_LOGIN_THROTTLE_H_

#include <chrono>
#include <map>
#include <string>

namespace pelmorad {

class LoginThrottle {
 public:
  using Clock = std::chrono::steady_clock;

  LoginThrottle(int failures, Clock::duration lockout, Clock::duration delay_step);

  // What to do with a login from `address` now.
  struct Decision {
    bool locked = false;      // refuse without checking the password
    Clock::duration delay{};  // wait this long before answering a failed login
  };
  Decision Check(const std::string& address, Clock::time_point now);

  // Records a failed login; the address is locked out when it reaches the limit.
  void Failed(const std::string& address, Clock::time_point now);

  // Forgets the address's failures.
  void Succeeded(const std::string& address);

  // The number of addresses tracked (bounded: stale entries are dropped as new ones come).
  std::size_t Tracked() const { return entries_.size(); }

 private:
  struct Entry {
    int failures = 0;
    Clock::time_point last_failure{};
    Clock::time_point locked_until{};
  };
  void Prune(Clock::time_point now);

  int failures_;
  Clock::duration lockout_;
  Clock::duration delay_step_;
  std::map<std::string, Entry> entries_;
};

}  // namespace pelmorad

#endif  // PELMORAD_LOGIN_THROTTLE_H_
