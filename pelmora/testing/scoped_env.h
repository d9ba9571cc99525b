// Environment settings for one test, restored when the object goes: any variable, and the time
// zone (TZ, with the C library's cached zone reloaded both ways).
//
//   pelmora::testing::ScopedEnv home("PELMORA_HOME", "/tmp/x");    // nullopt unsets it
//   pelmora::testing::ScopedTimeZone zone("Europe/Berlin");
#ifndef PELMORA_TESTING_SCOPED_ENV_H_
#define PELMORA_TESTING_SCOPED_ENV_H_

#include <stdlib.h>

#include <ctime>
#include <optional>
#include <string>
#include <utility>

namespace pelmora::testing {

// Sets (or, with nullopt, unsets) an environment variable and restores it on destruction.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
    if (const char* old = getenv(name_.c_str())) old_ = old;
    Apply(value);
  }
  ~ScopedEnv() { Apply(old_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void Apply(const std::optional<std::string>& value) {
    if (value) {
      setenv(name_.c_str(), value->c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }
  std::string name_;
  std::optional<std::string> old_;
};

// Sets TZ for the life of the object and restores the previous value.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) : tz_(std::in_place, "TZ", zone) { tzset(); }
  ~ScopedTimeZone() {
    tz_.reset();
    tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  std::optional<ScopedEnv> tz_;
};

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_SCOPED_ENV_H_
