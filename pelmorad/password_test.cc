#include "pelmorad/password.h"

#include <gtest/gtest.h>

namespace pelmorad {
namespace {

TEST(Password, HashIsYescryptAndVerifiesOnlyTheSamePassword) {
  std::string hash = HashPassword("correct horse");
  EXPECT_EQ(hash.rfind("$y$", 0), 0u) << hash;
  EXPECT_TRUE(VerifyPassword("correct horse", hash));
  EXPECT_FALSE(VerifyPassword("correct hors", hash));
  EXPECT_FALSE(VerifyPassword("", hash));
  EXPECT_FALSE(VerifyPassword(std::string("correct horse\0x", 15), hash));
  EXPECT_NE(HashPassword("correct horse"), hash);  // fresh salt each time
}

TEST(Password, MalformedHashesNeverMatch) {
  for (const char* hash : {"", "*", "$y$", "$y$j9T$short", "plain"}) {
    EXPECT_FALSE(VerifyPassword("plain", hash)) << hash;
  }
}

}  // namespace
}  // namespace pelmorad
