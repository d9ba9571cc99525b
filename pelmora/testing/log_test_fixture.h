// The log writers' test fixture: a thread's log settings pointed at a scratch root, the library
// folder at <scratch>/home/lib and the clock pinned to 2009-03-14 08:05:09. Used only by tests.
#ifndef PELMORA_TESTING_LOG_TEST_FIXTURE_H_
#define PELMORA_TESTING_LOG_TEST_FIXTURE_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/common/log.h"
#include "pelmora/common/system.h"

namespace pelmora::internal {

inline constexpr CivilTime kMorning{2009, 3, 14, 8, 5, 9};

class LogTest : public ::testing::Test {
 protected:
  LogTest()
      : root_(scratch_.Path() + "/root"),
        home_env_("PELMORA_HOME", scratch_.Path() + "/home/lib"),
        clock_(kMorning),
        host_(LocalComputerName()) {
    std::filesystem::create_directory(root_);
    LogRoot() = root_;
    LogLevel() = 3;
  }
  ~LogTest() override {
    LogRoot().clear();
    LogLevel() = 0;
  }

  std::string DayFile(std::string_view extension) const {
    return root_ + "/200903/20090314" + std::string(extension);
  }
  std::string LibraryDayFile(std::string_view name) const {
    return scratch_.Path() + "/home/Log/200903/" + std::string(name);
  }

  ScratchFolder scratch_;
  std::string root_;
  ScopedEnv home_env_;
  PinnedClock clock_;
  std::string host_;
};

}  // namespace pelmora::internal

#endif  // PELMORA_TESTING_LOG_TEST_FIXTURE_H_
