#include "pelmora/admin/credentials.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "pelmora/admin/internal/built_in_secrets.h"

namespace pelmora::admin {
namespace {

std::string Printable() {
  std::string all;
  for (int c = 0x20; c <= 0x7E; ++c) all.push_back(static_cast<char>(c));
  return all;
}

TEST(Credentials, TableIsAPermutationOfThePrintableRange) {
  std::set<int> seen;
  for (std::uint8_t code : CredentialTable()) {
    EXPECT_GE(code, 0x20);
    EXPECT_LE(code, 0x7E);
    seen.insert(code);
  }
  EXPECT_EQ(seen.size(), 95u);
}

TEST(Credentials, EveryPrintableCharacterRoundTripsAndIsSubstituted) {
  std::string all = Printable();
  std::string encoded = EncodeCredential(all);
  ASSERT_EQ(encoded.size(), all.size());
  for (std::size_t i = 0; i < all.size(); ++i) EXPECT_NE(encoded[i], all[i]) << all[i];
  EXPECT_EQ(DecodeCredential(encoded), all);
}

TEST(Credentials, KnownEncodingsStayFixed) {
  EXPECT_EQ(EncodeCredential(" ~"), "?o");
  EXPECT_EQ(EncodeCredential("admin"), "z='RS");
  EXPECT_EQ(DecodeCredential("z='RS"), "admin");
}

TEST(Credentials, BytesOutsideThePrintableRangeAreUnchanged) {
  std::string outside = {'\0', '\n', '\x1F', '\x7F', '\x80', '\xC3', '\xBC', '\xFF'};
  EXPECT_EQ(EncodeCredential(outside), outside);
  EXPECT_EQ(DecodeCredential(outside), outside);
  EXPECT_EQ(EncodeCredential("a\nb"), EncodeCredential("a") + "\n" + EncodeCredential("b"));
}

#include "pelmora/admin/built_in_secrets_expected.inc"

std::string FromHex(std::string_view hex) {
  std::string text;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    text.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return text;
}

TEST(BuiltInSecrets, AreTheConfiguredValues) {
  EXPECT_EQ(internal::BuiltInAccount(), FromHex(kExpectedAccountHex));
  EXPECT_EQ(internal::BuiltInPassword(), FromHex(kExpectedPasswordHex));
  EXPECT_EQ(internal::BuiltInAccessCode(), FromHex(kExpectedAccessCodeHex));
}

TEST(BuiltInSecrets, AreNonEmptyPrintableAndDistinct) {
  for (const std::string& secret :
       {internal::BuiltInAccount(), internal::BuiltInPassword(), internal::BuiltInAccessCode()}) {
    EXPECT_FALSE(secret.empty());
    for (char c : secret) EXPECT_TRUE(c >= 0x20 && c <= 0x7E) << secret;
  }
  EXPECT_NE(internal::BuiltInAccount(), internal::BuiltInPassword());
  EXPECT_NE(internal::BuiltInPassword(), internal::BuiltInAccessCode());
}

}  // namespace
}  // namespace pelmora::admin
