#include "pelmora/crypto/crypto.h"

#include <openssl/err.h>

#include <ostream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "pelmora/common/error.h"
#include "pelmora/crypto/internal/test_values.h"

namespace pelmora {
namespace {

using Bytes = Crypto::Bytes;
using namespace crypto_testing;  // NOLINT: error numbers and byte shorthands

// The reference key: a strong-level signature key exported by the platform.
constexpr std::string_view kReferencePublicBlob =
    "0602000000240000525341310004000001000100f5ab9a120100c8944f1f283e8fa3af7309e37a3b004ac035d95e"
    "8e53d362d013510229ab6abc5965b0acd309dc6b35abb454d2adc10191c2e5bb93f90acff9c8316b47e5758c7afc"
    "249e75a22a5e678b262a8e3e6ae100ae1d3c316bdff4af4c696c0b7aecf1d1a183cea1e7b81349d3642db5ad51ad"
    "57215eb1a23c58217da6";
constexpr std::string_view kReferenceMessage = "Message to be signed";
constexpr std::string_view kReferenceSignature =
    "b58b5e6ed19aaba8f662e3472ab113ac391fde18243caafdb9e27a5fe38cf727257a47e1d9496a5a6136d7b88990"
    "0766ed468f488515e5a7853701d8d250b2cb56d0a90c5c8ea754ac5bc1df70ab91bc531d3734f6cf49d004bf6a1c"
    "c842b3d60aae4d79b91d1c1592c4da7bb0e9d508ad5b5d9b36aec4d18a836710b1db0795";

TEST(Crypto, NewObjectIsAtTheStrongLevelWithNoError) {
  Crypto crypto;
  EXPECT_EQ(crypto.EncryptionLevel(), CryptoStrongEncryption);
  EXPECT_EQ(crypto.LastError(), 0);
}

TEST(Crypto, LevelOutsideTheEnumerationRaises380WithItsOwnText) {
  Crypto crypto;
  try {
    crypto.EncryptionLevel(static_cast<CryptoEncryptionLevel>(2));
    FAIL() << "no error raised";
  } catch (const Error& e) {
    EXPECT_EQ(e.Number(), 380);
    EXPECT_EQ(e.Description(), "Invalid Propery Value");
    EXPECT_EQ(e.Source(), "Crypto Class");
  }
  EXPECT_EQ(crypto.EncryptionLevel(), CryptoStrongEncryption);
  crypto.EncryptionLevel(CryptoBaseEncryption);
  crypto.EncryptionLevel(CryptoBaseEncryption);
  EXPECT_EQ(crypto.EncryptionLevel(), CryptoBaseEncryption);
}

TEST(Crypto, HashByteGivesTheMd5OfTheBytes) {
  Crypto crypto;
  Bytes digest;
  ASSERT_TRUE(crypto.HashByte(FromText("abc"), digest));
  EXPECT_EQ(crypto.Byte2Hex(digest), "900150983CD24FB0D6963F7D28E17F72");
}

struct Rc4Vector {
  CryptoEncryptionLevel level;
  const char* cipher_hex;
  friend void PrintTo(const Rc4Vector& v, std::ostream* os) { *os << "level" << v.level; }
};

class CryptoRc4Vector : public ::testing::TestWithParam<Rc4Vector> {};

TEST_P(CryptoRc4Vector, EncryptByteGivesThePlatformCipherTextAndDecryptByteReversesIt) {
  Crypto crypto;
  crypto.EncryptionLevel(GetParam().level);
  Bytes plain = FromText("The quick brown fox jumps over the lazy dog");
  Bytes cipher, back;
  ASSERT_TRUE(crypto.EncryptByte(FromText("abc"), plain, cipher));
  EXPECT_EQ(cipher, FromHex(GetParam().cipher_hex));
  ASSERT_TRUE(crypto.DecryptByte(FromText("abc"), cipher, back));
  EXPECT_EQ(back, plain);
}

// The base vector follows the 40-bit rule: RC4 over MD5[0..4] followed by 11 zero bytes.
INSTANTIATE_TEST_SUITE_P(
    Levels, CryptoRc4Vector,
    ::testing::Values(
        Rc4Vector{CryptoStrongEncryption,
                  "7f8c8ce041f1eb891e8e3760fc8cd38d2af8bd36dc68af7ef172ff001275f34e008acebb6b733280"
                  "34c37d"},
        Rc4Vector{CryptoBaseEncryption,
                  "28ba8dcb1a2dacb541c711d28dfc36752e08ff4c378214ae07b0eb308d3baf8fc21524e69487cb"
                  "58b9d6fd"}));

TEST(Crypto, EveryEncryptionStartsTheKeyStreamAfresh) {
  Crypto crypto;
  Bytes plain(100000, 0x5A), first, second;
  ASSERT_TRUE(crypto.EncryptByte(FromText("pw"), plain, first));
  ASSERT_TRUE(crypto.EncryptByte(FromText("pw"), plain, second));
  EXPECT_EQ(first, second);
  EXPECT_EQ(first.size(), plain.size());
}

TEST(Crypto, EmptyArgumentsFailWith87AndLeaveTheOutputAlone) {
  Crypto crypto;
  Bytes output = {1, 2, 3};
  const Bytes kOutput = output;
  EXPECT_FALSE(crypto.EncryptByte({}, FromText("x"), output));
  EXPECT_FALSE(crypto.EncryptByte(FromText("x"), {}, output));
  EXPECT_FALSE(crypto.DecryptByte({}, FromText("x"), output));
  EXPECT_FALSE(crypto.HashByte({}, output));
  EXPECT_FALSE(crypto.GenRandom(0, output));
  EXPECT_FALSE(crypto.GenRandom(-5, output));
  Bytes pub, priv;
  EXPECT_FALSE(crypto.GenKeyPairs(pub, priv, {}));
  EXPECT_FALSE(crypto.SignHash(FromHex(kReferencePublicBlob), {}, output, FromText("pw")));
  EXPECT_FALSE(crypto.VerifySignature(FromHex(kReferencePublicBlob), FromText("m"), {}));
  EXPECT_EQ(crypto.LastError(), 87);
  EXPECT_EQ(output, kOutput);
  EXPECT_TRUE(pub.empty() && priv.empty());
}

TEST(Crypto, RejectArgumentRecords87ForTheLateBindingAdapter) {
  Crypto crypto;
  EXPECT_FALSE(crypto.RejectArgument());
  EXPECT_EQ(crypto.LastError(), 87);
}

TEST(Crypto, GenRandomGivesTheAskedNumberOfFreshBytes) {
  Crypto crypto;
  Bytes first, second;
  ASSERT_TRUE(crypto.GenRandom(32, first));
  ASSERT_TRUE(crypto.GenRandom(32, second));
  EXPECT_EQ(first.size(), 32u);
  EXPECT_NE(first, second);
}

TEST(Crypto, ReferenceSignatureVerifiesWithTheReferencePublicBlob) {
  Crypto crypto;
  EXPECT_TRUE(crypto.VerifySignature(FromHex(kReferencePublicBlob), FromText(kReferenceMessage),
                                     FromHex(kReferenceSignature)));
  crypto.EncryptionLevel(CryptoBaseEncryption);
  EXPECT_TRUE(crypto.VerifySignature(FromHex(kReferencePublicBlob), FromText(kReferenceMessage),
                                     FromHex(kReferenceSignature)));
  EXPECT_EQ(crypto.LastError(), 0);
}

TEST(Crypto, DamagedSignaturesFailWithBadSignature) {
  Bytes blob = FromHex(kReferencePublicBlob), good = FromHex(kReferenceSignature);
  Bytes flipped = good, shorter = good, big_endian(good.rbegin(), good.rend()), longer = good;
  flipped[5] ^= 1;
  shorter.pop_back();
  longer.push_back(0);
  for (const Bytes& signature : {flipped, shorter, longer, big_endian}) {
    Crypto crypto;
    EXPECT_FALSE(crypto.VerifySignature(blob, FromText(kReferenceMessage), signature));
    EXPECT_EQ(crypto.LastError(), kNteBadSignature);
  }
  Crypto crypto;
  EXPECT_FALSE(crypto.VerifySignature(blob, FromText("Message to be signeD"), good));
  EXPECT_EQ(crypto.LastError(), kNteBadSignature);
}

TEST(Crypto, FailuresLeaveTheThreadOpenSslErrorQueueEmpty) {
  ERR_clear_error();
  Crypto crypto;
  Bytes signature = FromHex(kReferenceSignature);
  signature[0] ^= 0xFF;
  EXPECT_FALSE(crypto.VerifySignature(FromHex(kReferencePublicBlob), FromText(kReferenceMessage),
                                      signature));
  EXPECT_EQ(ERR_peek_error(), 0u);
}

struct HexCase {
  const char* hex;
  Bytes bytes;
  friend void PrintTo(const HexCase& c, std::ostream* os) { *os << '"' << c.hex << '"'; }
};

class CryptoHex2Byte : public ::testing::TestWithParam<HexCase> {};

TEST_P(CryptoHex2Byte, ReadsDigitPairsOrGivesNothing) {
  Crypto crypto;
  EXPECT_EQ(crypto.Hex2Byte(GetParam().hex), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(Cases, CryptoHex2Byte,
                         ::testing::Values(HexCase{"0aFF", {10, 255}},
                                           HexCase{"000aFF", {0, 10, 255}}, HexCase{"ABC", {}},
                                           HexCase{"zz", {}}, HexCase{"0", {}}, HexCase{"", {}},
                                           HexCase{"00g0", {}}, HexCase{"7f80", {0x7F, 0x80}},
                                           HexCase{" 1", {}}));

TEST(Crypto, Byte2HexWritesTwoUpperCaseDigitsPerByte) {
  Crypto crypto;
  EXPECT_EQ(crypto.Byte2Hex({0, 10, 255}), "000AFF");
  EXPECT_EQ(crypto.Byte2Hex({}), "");
  Bytes all(256);
  for (int i = 0; i < 256; ++i) all[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(crypto.Hex2Byte(crypto.Byte2Hex(all)), all);
}

}  // namespace
}  // namespace pelmora
