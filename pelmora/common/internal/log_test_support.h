// Test support for the log writers and the common routines: a scratch folder, a scoped
// environment variable, a pinned clock and whole-file reads. Used only by tests.
#ifndef PELMORA_COMMON_INTERNAL_LOG_TEST_SUPPORT_H_
#define PELMORA_COMMON_INTERNAL_LOG_TEST_SUPPORT_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>

#include "pelmora/common/date.h"
#include "pelmora/common/internal/platform.h"

namespace pelmora::internal {

// A fresh folder under the system's temporary folder, removed with its contents on destruction.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pelmora-log-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  // The folder's path without a trailing '/'; empty when mkdtemp failed.
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

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

// Pins CurrentLocalTime to a settable date until destruction.
class PinnedClock {
 public:
  explicit PinnedClock(const CivilTime& civil) {
    Set(civil);
    SetClockForTesting([this] { return now_; });
  }
  ~PinnedClock() { SetClockForTesting(nullptr); }
  PinnedClock(const PinnedClock&) = delete;
  PinnedClock& operator=(const PinnedClock&) = delete;

  void Set(const CivilTime& civil) { now_ = Date::FromCivil(civil).value_or(Date()); }

 private:
  Date now_;
};

// The whole content of a file, or nullopt when it cannot be opened.
inline std::optional<std::string> ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace pelmora::internal

#endif  // PELMORA_COMMON_INTERNAL_LOG_TEST_SUPPORT_H_
