#include "tools/pelmora/remote_wildcards.h"

#include <gtest/gtest.h>

namespace pelmora_tool {
namespace {

TEST(RemoteWildcards, MatchesAsTheShellDoesWithCaseKept) {
  struct Case {
    const char* pattern;
    const char* name;
    bool matches;
  } cases[] = {
      {"*.log", "app.log", true},
      {"*.log", "app.LOG", false},  // names are compared byte for byte
      {"*.log", "app.log.1", false},
      {"*.log*", "app.log.1", true},
      {"?.txt", "a.txt", true},
      {"?.txt", "ab.txt", false},
      {"a*b*c", "aXbYbZc", true},
      {"a*b*c", "aXbYbZ", false},
      {"*", "", true},
      {"*", ".hidden", false},      // a leading dot only when the pattern has one
      {".*", ".hidden", true},
      {"?hidden", ".hidden", false},
      {"[ab].txt", "[ab].txt", true},  // brackets are ordinary characters
      {"[ab].txt", "a.txt", false},
      {"***x", "x", true},
      {"*a*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(WildcardMatch(c.pattern, c.name), c.matches) << c.pattern << " " << c.name;
  }
}

TEST(RemoteWildcards, OnlyTheLastNameIsAPattern) {
  EXPECT_TRUE(HasWildcard("C:\\logs\\*.log"));
  EXPECT_TRUE(HasWildcard("C:/logs/a?.log"));
  EXPECT_FALSE(HasWildcard("C:\\l*gs\\app.log"));
  EXPECT_FALSE(HasWildcard("C:\\logs\\"));
  struct Case {
    const char* path;
    WildcardPath split;
  } cases[] = {
      {"C:\\logs\\*.log", {"C:\\logs", "C:\\logs\\", "*.log"}},
      {"C:\\*.log", {"C:\\", "C:\\", "*.log"}},
      {"C:*.log", {"C:\\", "C:\\", "*.log"}},
      {"D:/a/b/x?", {"D:/a/b", "D:/a/b/", "x?"}},
  };
  for (const Case& c : cases) {
    WildcardPath split = SplitWildcardPath(c.path);
    EXPECT_EQ(split.folder, c.split.folder) << c.path;
    EXPECT_EQ(split.prefix, c.split.prefix) << c.path;
    EXPECT_EQ(split.pattern, c.split.pattern) << c.path;
  }
}

}  // namespace
}  // namespace pelmora_tool
