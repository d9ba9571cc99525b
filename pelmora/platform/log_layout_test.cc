#include "pelmora/platform/log_layout.h"

#include <gtest/gtest.h>

namespace pelmora::platform {
namespace {

TEST(LogLayout, PathsOfTheDayFiles) {
  struct Case {
    const char* prefix;
    LogKind kind;
    const char* path;
  };
  for (Case c :
       {Case{"", LogKind::kInformation, "/opt/Log/200903/20090314.log"},
        Case{"", LogKind::kError, "/opt/Log/200903/20090314.err"},
        Case{"SocketClient", LogKind::kError, "/opt/Log/200903/SocketClient20090314.err"}}) {
    EXPECT_EQ(LogFilePath("/opt/Log", "20090314", c.kind, c.prefix), c.path);
  }
  EXPECT_EQ(LogMonthFolder("/opt/Log", "20091231"), "/opt/Log/200912");
  EXPECT_EQ(LogFileName("20090314", LogKind::kError), "20090314.err");
}

}  // namespace
}  // namespace pelmora::platform
