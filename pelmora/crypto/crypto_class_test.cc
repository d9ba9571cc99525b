// Late binding of "Pelmora.Crypto": every member reached by name, by-reference outputs written
// back only on success, and any-typed passwords that do not hold a byte array refused with 87.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "pelmora/automation/dispatch.h"
#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "pelmora/common/variant.h"
#include "pelmora/crypto/internal/test_values.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

using automation::CallByName;
using automation::CallKind;
using automation::CreateObject;
using automation::GetProperty;
using automation::SetProperty;
using pelmora::testing::RaisedError;
using namespace crypto_testing;  // NOLINT: error numbers and byte shorthands

Variant Call(const ObjectRef& object, std::string_view name, std::vector<Variant>& args) {
  return CallByName(object, name, CallKind::kMethod, args);
}

TEST(CryptoClass, EncryptsAndDecryptsByName) {
  ObjectRef crypto = CreateObject("pelmora.crypto");
  std::vector<Variant> encrypt = {Variant(FromText("pw")), Variant(FromText("plain text")),
                                  Variant()};
  ASSERT_TRUE(Call(crypto, "EncryptByte", encrypt).ToBool());
  ASSERT_EQ(encrypt[2].Type(), VariantType::kByteArray);
  EXPECT_NE(encrypt[2].ToBytes(), FromText("plain text"));
  EXPECT_EQ(encrypt[2].ToBytes().size(), 10u);
  std::vector<Variant> decrypt = {Variant(FromText("pw")), encrypt[2], Variant()};
  ASSERT_TRUE(Call(crypto, "DecryptByte", decrypt).ToBool());
  EXPECT_EQ(decrypt[2].ToBytes(), FromText("plain text"));
}

TEST(CryptoClass, SignsAndVerifiesWithGeneratedKeysAtBothLevels) {
  ObjectRef crypto = CreateObject("Pelmora.Crypto");
  for (int32_t level : {0, 1}) {
    SetProperty(crypto, "EncryptionLevel", Variant(level));
    EXPECT_EQ(GetProperty(crypto, "EncryptionLevel").ToLong(), level);
    std::vector<Variant> keys = {Variant(), Variant(), Variant(FromText("secret"))};
    ASSERT_TRUE(Call(crypto, "GenKeyPairs", keys).ToBool());
    std::vector<Variant> sign = {keys[1], Variant(FromText("message")), Variant(),
                                 Variant(FromText("secret"))};
    ASSERT_TRUE(Call(crypto, "SignHash", sign).ToBool());
    EXPECT_EQ(sign[2].ToBytes().size(), level == 0 ? 128u : 64u);
    std::vector<Variant> verify = {keys[0], Variant(FromText("message")), sign[2]};
    EXPECT_TRUE(Call(crypto, "VerifySignature", verify).ToBool());
    verify[1] = Variant(FromText("massage"));
    EXPECT_FALSE(Call(crypto, "VerifySignature", verify).ToBool());
    EXPECT_EQ(GetProperty(crypto, "LastError").ToLong(), kNteBadSignature);
  }
}

TEST(CryptoClass, HashesDrawsRandomBytesAndConvertsHex) {
  ObjectRef crypto = CreateObject("Pelmora.Crypto");
  std::vector<Variant> hash = {Variant(FromText("abc")), Variant()};
  ASSERT_TRUE(Call(crypto, "HashByte", hash).ToBool());
  std::vector<Variant> hex = {hash[1]};
  EXPECT_EQ(Call(crypto, "Byte2Hex", hex).ToString(), "900150983CD24FB0D6963F7D28E17F72");
  std::vector<Variant> back = {Variant("0aFf")};
  EXPECT_EQ(Call(crypto, "Hex2Byte", back).ToBytes(), (Bytes{0x0a, 0xff}));
  std::vector<Variant> random = {Variant(int32_t{24}), Variant()};
  ASSERT_TRUE(Call(crypto, "GenRandom", random).ToBool());
  EXPECT_EQ(random[1].ToBytes().size(), 24u);
}

TEST(CryptoClass, PasswordsThatHoldNoByteArrayFailWith87AndLeaveOutputsAlone) {
  ObjectRef crypto = CreateObject("Pelmora.Crypto");
  const Variant kNotBytes[] = {Variant("pw"), Variant(int32_t{7}), Variant(),
                               Variant(VariantArray{0, {Variant(uint8_t{1})}})};
  for (const Variant& password : kNotBytes) {
    SCOPED_TRACE(password.DebugString());
    std::vector<Variant> keys = {Variant("old"), Variant("old"), password};
    EXPECT_FALSE(Call(crypto, "GenKeyPairs", keys).ToBool());
    EXPECT_EQ(keys[0], Variant("old"));
    EXPECT_EQ(keys[1], Variant("old"));
    for (const char* member : {"EncryptByte", "DecryptByte"}) {
      std::vector<Variant> args = {password, Variant(FromText("data")), Variant("old")};
      EXPECT_FALSE(Call(crypto, member, args).ToBool());
      EXPECT_EQ(args[2], Variant("old"));
      EXPECT_EQ(GetProperty(crypto, "LastError").ToLong(), 87);
    }
  }
}

TEST(CryptoClass, FailedCallsKeepTheCallersOutput) {
  ObjectRef crypto = CreateObject("Pelmora.Crypto");
  std::vector<Variant> hash = {Variant(Bytes{}), Variant(int32_t{5})};
  EXPECT_FALSE(Call(crypto, "HashByte", hash).ToBool());
  EXPECT_EQ(hash[1], Variant(int32_t{5}));
  std::vector<Variant> random = {Variant(int32_t{0}), Variant(int32_t{5})};
  EXPECT_FALSE(Call(crypto, "GenRandom", random).ToBool());
  EXPECT_EQ(random[1], Variant(int32_t{5}));
  std::vector<Variant> sign = {Variant(Bytes{1, 2, 3}), Variant(FromText("m")), Variant(),
                               Variant(FromText("pw"))};
  EXPECT_FALSE(Call(crypto, "SignHash", sign).ToBool());
  EXPECT_TRUE(sign[2].IsEmpty());
  EXPECT_EQ(GetProperty(crypto, "LastError").ToLong(), kNteBadLen);
}

TEST(CryptoClass, RaisesTheBindingAndLevelErrors) {
  ObjectRef crypto = CreateObject("Pelmora.Crypto");
  Error unknown = RaisedError([&] { GetProperty(crypto, "KeyLength"); });
  EXPECT_EQ(unknown.Number(), 438);
  EXPECT_EQ(unknown.Description(), "Object doesn't support this property or method");
  EXPECT_EQ(unknown.Source(), "Pelmora.Crypto");
  Error read_only = RaisedError([&] { SetProperty(crypto, "LastError", Variant(int32_t{1})); });
  EXPECT_EQ(read_only.Number(), 450);
  EXPECT_EQ(read_only.Description(), "Wrong number of arguments or invalid property assignment");
  std::vector<Variant> short_args = {Variant(FromText("abc"))};
  EXPECT_EQ(RaisedError([&] { Call(crypto, "HashByte", short_args); }).Number(), 450);
  Error level = RaisedError([&] { SetProperty(crypto, "EncryptionLevel", Variant(int32_t{2})); });
  EXPECT_EQ(level.Number(), 380);
  EXPECT_EQ(level.Description(), "Invalid Propery Value");
  EXPECT_EQ(level.Source(), "Crypto Class");
}

}  // namespace
}  // namespace pelmora
