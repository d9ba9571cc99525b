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
#include "pelmora/testing/scoped_env.h"
#include "pelmora/testing/scratch_folder.h"

namespace pelmora::internal {

using pelmora::testing::ScratchFolder;

using pelmora::testing::ScopedEnv;

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
