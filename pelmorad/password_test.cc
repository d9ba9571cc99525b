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

TEST(Password, RememberedPasswordsSkipTheHashOnlyForTheSamePasswordAndHash) {
  std::string hash = HashPassword("fleet secret");
  VerifiedPasswords remembered;
  EXPECT_TRUE(remembered.Verify("fleet secret", hash));
  EXPECT_TRUE(remembered.Verify("fleet secret", hash));
  EXPECT_EQ(remembered.FullVerifications(), 1);
  // Wrong passwords are verified in full every time and never remembered.
  EXPECT_FALSE(remembered.Verify("fleet secreT", hash));
  EXPECT_FALSE(remembered.Verify("fleet secreT", hash));
  EXPECT_FALSE(remembered.Verify("", hash));
  EXPECT_EQ(remembered.FullVerifications(), 4);
  // A new hash (the password changed) does not accept the old password.
  std::string changed = HashPassword("new secret");
  EXPECT_FALSE(remembered.Verify("fleet secret", changed));
  EXPECT_TRUE(remembered.Verify("new secret", changed));
  EXPECT_TRUE(remembered.Verify("fleet secret", hash));
  EXPECT_EQ(remembered.FullVerifications(), 6);
}

}  // namespace
}  // namespace pelmorad
