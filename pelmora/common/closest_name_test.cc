#include "pelmora/common/closest_name.h"

#include <gtest/gtest.h>

namespace pelmora {
namespace {

TEST(ClosestName, SuggestsOnlyRealNearMisses) {
  const std::vector<std::string> keys = {"account", "port", "password_file", "tls", "ca_file",
                                         "--hosts", "ls"};
  struct Case {
    const char* typed;
    const char* expected;
  } cases[] = {
      {"acount", "account"},        // one letter left out
      {"prot", "port"},             // two letters swapped
      {"pasword_fil", "password_file"},
      {"--hots", "--hosts"},        // dashes are not compared
      {"tsl", ""},                  // two edits is too many for a short word
      {"passw", "password_file"},   // the beginning of a name
      {"x", ""},                    // one letter is near every short name: no suggestion
      {"lss", "ls"},
      {"fingerprint", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ClosestName(c.typed, keys), c.expected) << c.typed;
  }
}

TEST(EditDistance, CountsInsertionsDeletionsAndReplacements) {
  EXPECT_EQ(EditDistance("", ""), 0u);
  EXPECT_EQ(EditDistance("abc", ""), 3u);
  EXPECT_EQ(EditDistance("kitten", "sitting"), 3u);
  EXPECT_EQ(EditDistance("comands", "commands"), 1u);
}

}  // namespace
}  // namespace pelmora
