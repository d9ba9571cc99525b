// Key pairs, signatures, blob checks and provider loading of the Crypto object.
#include <cstdlib>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/crypto/crypto.h"
#include "pelmora/crypto/internal/crypto_errors.h"
#include "pelmora/crypto/internal/test_values.h"

namespace pelmora {
namespace {

using Bytes = Crypto::Bytes;
using namespace crypto_testing;  // NOLINT: error numbers and byte shorthands

struct KeyPair {
  Bytes public_blob;
  Bytes private_blob;
};

// One generated pair per level, shared by the tests (generation is the slow part).
const KeyPair& PairAt(CryptoEncryptionLevel level) {
  static const KeyPair* pairs[2] = {};
  if (!pairs[level]) {
    Crypto crypto;
    crypto.EncryptionLevel(level);
    auto* pair = new KeyPair;
    EXPECT_TRUE(crypto.GenKeyPairs(pair->public_blob, pair->private_blob, FromText("secret")));
    pairs[level] = pair;
  }
  return *pairs[level];
}

struct LevelSizes {
  CryptoEncryptionLevel level;
  uint32_t bits;
  size_t public_size;
  size_t private_size;
  friend void PrintTo(const LevelSizes& l, std::ostream* os) { *os << l.bits << "bits"; }
};

class CryptoKeyLevel : public ::testing::TestWithParam<LevelSizes> {};

TEST_P(CryptoKeyLevel, GenKeyPairsExportsPlatformBlobsOfTheLevelSize) {
  const KeyPair& pair = PairAt(GetParam().level);
  ASSERT_EQ(pair.public_blob.size(), GetParam().public_size);
  ASSERT_EQ(pair.private_blob.size(), GetParam().private_size);
  uint32_t bits = GetParam().bits;
  Bytes header = {0x06,
                  0x02,
                  0x00,
                  0x00,
                  0x00,
                  0x24,
                  0x00,
                  0x00,
                  'R',
                  'S',
                  'A',
                  '1',
                  static_cast<uint8_t>(bits),
                  static_cast<uint8_t>(bits >> 8),
                  0,
                  0,
                  0x01,
                  0x00,
                  0x01,
                  0x00};
  EXPECT_EQ(Bytes(pair.public_blob.begin(), pair.public_blob.begin() + 20), header);
  // The private blob's clear header, then a body that one fresh RC4 stream of the password opens.
  EXPECT_EQ(Bytes(pair.private_blob.begin(), pair.private_blob.begin() + 8),
            (Bytes{0x07, 0x02, 0x00, 0x00, 0x00, 0x24, 0x00, 0x00}));
  Crypto crypto;
  crypto.EncryptionLevel(GetParam().level);
  Bytes body;
  ASSERT_TRUE(crypto.DecryptByte(
      FromText("secret"), Bytes(pair.private_blob.begin() + 8, pair.private_blob.end()), body));
  header[8 + 3] = '2';
  EXPECT_EQ(Bytes(body.begin(), body.begin() + 12), Bytes(header.begin() + 8, header.end()));
  EXPECT_EQ(Bytes(body.begin() + 12, body.begin() + 12 + bits / 8),
            Bytes(pair.public_blob.begin() + 20, pair.public_blob.end()));
}

TEST_P(CryptoKeyLevel, SignatureVerifiesWithThePublicBlobAndClearsLastError) {
  const KeyPair& pair = PairAt(GetParam().level);
  Crypto crypto;
  crypto.EncryptionLevel(GetParam().level);
  crypto.RejectArgument();
  Bytes signature;
  ASSERT_TRUE(
      crypto.SignHash(pair.private_blob, FromText("payload"), signature, FromText("secret")));
  EXPECT_EQ(crypto.LastError(), 0);
  EXPECT_EQ(signature.size(), GetParam().bits / 8);
  EXPECT_TRUE(crypto.VerifySignature(pair.public_blob, FromText("payload"), signature));
  EXPECT_FALSE(crypto.VerifySignature(pair.public_blob, FromText("payloaD"), signature));
  EXPECT_EQ(crypto.LastError(), kNteBadSignature);
}

TEST_P(CryptoKeyLevel, WrongPasswordOrOtherLevelCannotOpenThePrivateBlob) {
  const KeyPair& pair = PairAt(GetParam().level);
  Crypto crypto;
  crypto.EncryptionLevel(GetParam().level);
  Bytes signature = {9};
  EXPECT_FALSE(crypto.SignHash(pair.private_blob, FromText("m"), signature, FromText("Secret")));
  EXPECT_EQ(crypto.LastError(), kNteBadData);
  crypto.EncryptionLevel(GetParam().level == CryptoStrongEncryption ? CryptoBaseEncryption
                                                                    : CryptoStrongEncryption);
  crypto.RejectArgument();
  EXPECT_FALSE(crypto.SignHash(pair.private_blob, FromText("m"), signature, FromText("secret")));
  EXPECT_EQ(crypto.LastError(), kNteBadData);
  EXPECT_EQ(signature, Bytes{9});
}

INSTANTIATE_TEST_SUITE_P(Levels, CryptoKeyLevel,
                         ::testing::Values(LevelSizes{CryptoStrongEncryption, 1024, 148, 596},
                                           LevelSizes{CryptoBaseEncryption, 512, 84, 308}));

TEST(CryptoKeys, SignHashWithAPublicBlobFailsWithNoKey) {
  Crypto crypto;
  Bytes signature;
  EXPECT_FALSE(crypto.SignHash(PairAt(CryptoStrongEncryption).public_blob, FromText("m"), signature,
                               FromText("secret")));
  EXPECT_EQ(crypto.LastError(), kNteNoKey);
}

TEST(CryptoKeys, SignatureOfAnotherKeyDoesNotVerify) {
  Crypto crypto;
  Bytes signature;
  ASSERT_TRUE(crypto.SignHash(PairAt(CryptoStrongEncryption).private_blob, FromText("m"), signature,
                              FromText("secret")));
  Crypto other;
  Bytes pub, priv;
  ASSERT_TRUE(other.GenKeyPairs(pub, priv, FromText("secret")));
  EXPECT_FALSE(other.VerifySignature(pub, FromText("m"), signature));
  EXPECT_EQ(other.LastError(), kNteBadSignature);
}

TEST(CryptoKeys, ExchangeKeyAlgorithmIdIsReadToo) {
  const KeyPair& pair = PairAt(CryptoStrongEncryption);
  Crypto crypto;
  Bytes signature;
  ASSERT_TRUE(crypto.SignHash(pair.private_blob, FromText("m"), signature, FromText("secret")));
  Bytes exchange = pair.public_blob;
  exchange[5] = 0xA4;
  EXPECT_TRUE(crypto.VerifySignature(exchange, FromText("m"), signature));
}

struct BlobDamage {
  const char* what;
  size_t offset;  // byte to set, or npos to cut the blob to `value` bytes (or grow it by one)
  int value;
  int32_t error;
  friend void PrintTo(const BlobDamage& d, std::ostream* os) { *os << d.what; }
};

constexpr size_t kCut = static_cast<size_t>(-1);
constexpr size_t kGrow = static_cast<size_t>(-2);

class CryptoPublicBlobDamage : public ::testing::TestWithParam<BlobDamage> {};

TEST_P(CryptoPublicBlobDamage, VerifyFailsWithTheBlobError) {
  const KeyPair& pair = PairAt(CryptoStrongEncryption);
  Crypto crypto;
  Bytes signature;
  ASSERT_TRUE(crypto.SignHash(pair.private_blob, FromText("m"), signature, FromText("secret")));
  Bytes blob = pair.public_blob;
  const BlobDamage& damage = GetParam();
  if (damage.offset == kCut) {
    blob.resize(static_cast<size_t>(damage.value));
  } else if (damage.offset == kGrow) {
    blob.push_back(0);
  } else {
    blob[damage.offset] = static_cast<uint8_t>(damage.value);
  }
  EXPECT_FALSE(crypto.VerifySignature(blob, FromText("m"), signature)) << damage.what;
  EXPECT_EQ(crypto.LastError(), damage.error) << damage.what;
}

INSTANTIATE_TEST_SUITE_P(Damages, CryptoPublicBlobDamage,
                         ::testing::Values(BlobDamage{"one-byte", kCut, 1, kNteBadLen},
                                           BlobDamage{"header-only", kCut, 8, kNteBadLen},
                                           BlobDamage{"fixed-part-only", kCut, 20, kNteBadLen},
                                           BlobDamage{"one-byte-short", kCut, 147, kNteBadLen},
                                           BlobDamage{"one-byte-long", kGrow, 0, kNteBadLen},
                                           BlobDamage{"session-key-type", 0, 1, kNteBadType},
                                           BlobDamage{"version-3", 1, 3, kNteBadVer},
                                           BlobDamage{"reserved", 2, 1, kNteBadData},
                                           BlobDamage{"RC4-algorithm", 5, 0x68, kNteBadKey},
                                           BlobDamage{"private-magic", 11, '2', kNteBadData},
                                           BlobDamage{"256-bit-modulus", 13, 1, kNteBadKey},
                                           BlobDamage{"bitlen-not-whole-bytes", 12, 4, kNteBadKey},
                                           BlobDamage{"even-exponent", 16, 0, kNteBadData},
                                           BlobDamage{"modulus-top-byte-0", 147, 0, kNteBadData}));

TEST(CryptoKeys, DamagedPrivateBlobsFailToSign) {
  const KeyPair& pair = PairAt(CryptoStrongEncryption);
  struct Case {
    size_t offset;
    int32_t error;
  } cases[] = {{0, kNteBadData} /* read as public: magic garbled */,
               {200, kNteBadData},
               {400, kNteBadData},
               {595, kNteBadData}};
  for (const Case& c : cases) {
    Bytes blob = pair.private_blob;
    blob[c.offset] ^= c.offset == 0 ? 0x01 : 0x40;
    Crypto crypto;
    Bytes signature;
    EXPECT_FALSE(crypto.SignHash(blob, FromText("m"), signature, FromText("secret"))) << c.offset;
    EXPECT_EQ(crypto.LastError(), c.error) << c.offset;
  }
  Bytes truncated(pair.private_blob.begin(), pair.private_blob.end() - 1);
  Crypto crypto;
  Bytes signature;
  EXPECT_FALSE(crypto.SignHash(truncated, FromText("m"), signature, FromText("secret")));
  EXPECT_EQ(crypto.LastError(), kNteBadLen);
}

// Points OpenSSL's module search at an empty place for the life of the object.
class MissingLegacyModule {
 public:
  MissingLegacyModule() {
    if (const char* old = std::getenv("OPENSSL_MODULES")) old_ = old;
    setenv("OPENSSL_MODULES", "/nonexistent/pelmora-no-modules", 1);
  }
  ~MissingLegacyModule() {
    if (old_) {
      setenv("OPENSSL_MODULES", old_->c_str(), 1);
    } else {
      unsetenv("OPENSSL_MODULES");
    }
  }

 private:
  std::optional<std::string> old_;
};

TEST(CryptoProviders, CreationWithoutTheLegacyModuleRaisesKeysetNotDefined) {
  MissingLegacyModule missing;
  try {
    Crypto crypto;
    FAIL() << "no error raised";
  } catch (const Error& e) {
    EXPECT_EQ(e.Number(), kNteKeysetNotDef);
    EXPECT_EQ(e.Description(),
              "\"Microsoft Enhanced Cryptographic Provider v1.0\" does not installed");
    EXPECT_EQ(e.Source(), "Crypto Class");
  }
}

TEST(CryptoProviders, FailedLevelChangeKeepsTheOldLevelWorking) {
  Crypto crypto;
  {
    MissingLegacyModule missing;
    try {
      crypto.EncryptionLevel(CryptoBaseEncryption);
      FAIL() << "no error raised";
    } catch (const Error& e) {
      EXPECT_EQ(e.Number(), kNteKeysetNotDef);
      EXPECT_EQ(e.Description(),
                "\"Microsoft Base Cryptographic Provider v1.0\" does not installed");
    }
  }
  EXPECT_EQ(crypto.EncryptionLevel(), CryptoStrongEncryption);
  Bytes cipher;
  EXPECT_TRUE(crypto.EncryptByte(FromText("abc"), FromText("x"), cipher));
}

TEST(CryptoErrors, NumbersCarryThePlatformTexts) {
  struct Case {
    int32_t code;
    const char* text;
  } cases[] = {{kNteBadKey, "Bad Key."},
               {kNteBadLen, "Bad Length."},
               {kNteBadData, "Bad Data."},
               {kNteBadSignature, "Invalid Signature."},
               {kNteBadVer, "Bad Version of provider."},
               {kNteBadType, "Invalid type specified."},
               {kNteNoKey, "Key does not exist."},
               {87, "The parameter is incorrect."},
               {kNteKeysetNotDef, "The keyset is not defined."},
               {-2146893792, "An internal error occurred."},
               {-2146893810, "Insufficient memory available for the operation."}};
  for (const Case& c : cases) {
    EXPECT_EQ(crypto_internal::CryptoErrorText(c.code), c.text) << c.code;
  }
  EXPECT_EQ(crypto_internal::CryptoErrorText(12345), "Error Number: 12345");
}

}  // namespace
}  // namespace pelmora
