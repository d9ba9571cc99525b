// The late-bound face of Crypto: creatable as "Pelmora.Crypto", members in interface order.
//
// Byte arrays that a member writes (PbKey, PvKey, Output) are by reference and are assigned only
// when the member succeeds, so a failed call leaves the caller's variable as it was. The
// passwords of GenKeyPairs, EncryptByte and DecryptByte are any-typed: a value that does not hold
// a byte array makes the call fail with LastError 87 (it is not converted). Raised errors (the
// EncryptionLevel setter, the creation) keep their source "Crypto Class".
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "pelmora/automation/class_binder.h"
#include "pelmora/common/variant.h"
#include "pelmora/crypto/crypto.h"

namespace pelmora {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;
using Bytes = Crypto::Bytes;
using In = const Bytes&;

// Runs `member` into a byte array and stores it in `out` when the member succeeds.
template <class F>
bool WriteOnSuccess(Variant& out, F member) {
  Bytes bytes;
  if (!member(bytes)) return false;
  out = Variant(std::move(bytes));
  return true;
}

// The bytes of an any-typed password, or nullptr when it holds no byte array.
const Bytes* HeldBytes(const Variant& value) { return value.Get<Bytes>(); }

bool GenKeyPairsByName(Crypto& c, Variant& PbKey, Variant& PvKey, const Variant& PvKeyPwd) {
  const Bytes* password = HeldBytes(PvKeyPwd);
  if (password == nullptr) return c.RejectArgument();
  Bytes pub, priv;
  if (!c.GenKeyPairs(pub, priv, *password)) return false;
  PbKey = Variant(std::move(pub));
  PvKey = Variant(std::move(priv));
  return true;
}

// EncryptByte and DecryptByte: `member` is the typed method.
template <bool (Crypto::*member)(In, In, Bytes&)>
bool CryptByName(Crypto& c, const Variant& Password, In Src, Variant& Output) {
  const Bytes* password = HeldBytes(Password);
  if (password == nullptr) return c.RejectArgument();
  return WriteOnSuccess(Output, [&](Bytes& out) { return (c.*member)(*password, Src, out); });
}

bool SignHashByName(Crypto& c, In Key, In Src, Variant& Output, In Password) {
  return WriteOnSuccess(Output, [&](Bytes& out) { return c.SignHash(Key, Src, out, Password); });
}

bool HashByteByName(Crypto& c, In Src, Variant& Output) {
  return WriteOnSuccess(Output, [&](Bytes& out) { return c.HashByte(Src, out); });
}

bool GenRandomByName(Crypto& c, int32_t Length, Variant& Output) {
  return WriteOnSuccess(Output, [&](Bytes& out) { return c.GenRandom(Length, out); });
}

const ClassRegistrar kCryptoClass(
    ClassBinder<Crypto>("Pelmora.Crypto")
        .Property(
            "EncryptionLevel", [](Crypto& c) { return c.EncryptionLevel(); },
            [](Crypto& c, CryptoEncryptionLevel level) { c.EncryptionLevel(level); })
        .Property("LastError", [](Crypto& c) { return c.LastError(); })
        .Method("GenKeyPairs", &GenKeyPairsByName)
        .Method("EncryptByte", &CryptByName<&Crypto::EncryptByte>)
        .Method("DecryptByte", &CryptByName<&Crypto::DecryptByte>)
        .Method("SignHash", &SignHashByName)
        .Method("VerifySignature", [](Crypto& c, In Key, In Src,
                                      In Hash) { return c.VerifySignature(Key, Src, Hash); })
        .Method("HashByte", &HashByteByName)
        .Method("GenRandom", &GenRandomByName)
        .Method("Byte2Hex", [](Crypto& c, In aByte) { return c.Byte2Hex(aByte); })
        .Method("Hex2Byte", [](Crypto& c, const std::string& sHex) { return c.Hex2Byte(sHex); }));

}  // namespace
}  // namespace pelmora
