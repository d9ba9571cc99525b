// Failed logins counted per client address and per account name: every attempt waits, before its
// password is checked, for a delay that grows with the failures and the attempts still in flight
// of its address and of its account name (whichever is larger), up to a ceiling; while an address
// or a name has no failures, its first `free_in_flight` parallel attempts wait nothing. Nothing is
// locked out: the real user waits at most the ceiling, while guesses, in parallel or from many
// addresses, go no faster than one per ceiling for each account name and each address. A success
// forgets only the failures of its own account name.
//
//   LoginThrottle throttle({.free_failures = 5, .memory = seconds(60), .step = milliseconds(250),
//                           .ceiling = seconds(8)});
//   Clock::duration wait = throttle.Begin(address, account, now);   // wait, then check
//   throttle.Finish(address, account, accepted, now);
#ifndef PELMORAD_LOGIN_THROTTLE_H_
#define PELMORAD_LOGIN_THROTTLE_H_

#include <chrono>
#include <map>
#include <string>

namespace pelmorad {

class LoginThrottle {
 public:
  using Clock = std::chrono::steady_clock;

  struct Settings {
    int free_failures = 5;           // below this many the delay grows by `step` per failure;
                                     // from it on it doubles with each
    Clock::duration memory{};        // failures are forgotten after this long without one
    Clock::duration step{};          // the delay per failure
    Clock::duration ceiling{};       // the longest delay
    int free_in_flight = 0;          // attempts in flight that count for nothing while their
                                     // address or name has no failures (a fleet logging in at once)
  };

  explicit LoginThrottle(Settings settings) : settings_(settings) {}

  // Registers an attempt for `account` from `address` as in flight and returns how long it waits
  // before its password is checked.
  Clock::duration Begin(const std::string& address, const std::string& account,
                        Clock::time_point now);

  // Ends an attempt registered by Begin: a failure counts for the address and the account name,
  // a success forgets the account name's failures (the address keeps its own).
  void Finish(const std::string& address, const std::string& account, bool succeeded,
              Clock::time_point now);

  // The delay for `count` failures and attempts in flight.
  Clock::duration DelayFor(int count) const;

  // The addresses and names tracked (bounded: forgotten entries are dropped as new ones come).
  std::size_t Tracked() const { return entries_.size(); }

 private:
  struct Entry {
    int failures = 0;
    int in_flight = 0;
    Clock::time_point last_failure{};
  };
  Entry& At(const std::string& key, Clock::time_point now);
  int Count(const Entry& entry) const;
  void Prune(Clock::time_point now);

  Settings settings_;
  std::map<std::string, Entry> entries_;
};

}  // namespace pelmorad

#endif  // PELMORAD_LOGIN_THROTTLE_H_
