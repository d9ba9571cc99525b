// The Crypto object: an RSA signature key pair whose private half is protected by a password,
// password-based RC4 encryption of byte arrays, MD5 signing and verifying, MD5 hashing, random
// bytes and hexadecimal conversion. Key blobs, cipher texts and signatures are byte for byte those
// of the platform's cryptography providers, so they can be exchanged with programs that use them.
//
//   pelmora::Crypto crypto;                        // strong level; throws if no provider
//   std::vector<uint8_t> pub, priv, sig, pwd = {'p', 'w'};
//   if (!crypto.GenKeyPairs(pub, priv, pwd)) return crypto.LastError();
//   crypto.SignHash(priv, message, sig, pwd);
//   bool ok = crypto.VerifySignature(pub, message, sig);
//
// Every member except the constructor and the EncryptionLevel setter reports failure by
// returning false (or an empty result) and leaving the platform's error number in LastError; no
// member blocks beyond its own computation (key generation takes milliseconds). One object is
// used by one thread at a time.
//
// Late binding: the automation interface passes the password of GenKeyPairs, EncryptByte and
// DecryptByte as an any-typed value. Its adapter calls RejectArgument() (LastError 87, result
// false) when that value does not hold a byte array, and passes the bytes here otherwise.
#ifndef PELMORA_CRYPTO_CRYPTO_H_
#define PELMORA_CRYPTO_CRYPTO_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/crypto/crypto_level.h"
#include "pelmora/platform/export.h"

namespace pelmora {

namespace crypto_internal {
class CryptoProvider;
}  // namespace crypto_internal

class PELMORA_API Crypto {
 public:
  using Bytes = std::vector<uint8_t>;

  // Creates the object at CryptoStrongEncryption. Raises pelmora::Error with source "Crypto
  // Class" when the algorithms cannot be loaded: number NTE_KEYSET_NOT_DEF (-2146893799) and
  // the description "\"Microsoft Enhanced Cryptographic Provider v1.0\" does not installed"
  // when a provider is missing, another number with its system text otherwise.
  Crypto();
  ~Crypto();
  Crypto(const Crypto&) = delete;
  Crypto& operator=(const Crypto&) = delete;

  // The level in use (CryptoStrongEncryption for a new object).
  CryptoEncryptionLevel EncryptionLevel() const { return level_; }

  // Switches the level. The same level does nothing. A value other than 0 or 1 raises 380
  // "Invalid Propery Value"; a provider that cannot be loaded raises as the constructor does,
  // naming the requested level's provider, and the old level stays in use.
  void EncryptionLevel(CryptoEncryptionLevel level);

  // The number of the last failure (0 until one happens; successes do not clear it, except a
  // successful SignHash).
  int32_t LastError() const { return last_error_; }

  // Generates an RSA signature key pair of the level's size (1024 bits strong, 512 base):
  // PbKey receives its PUBLICKEYBLOB, PvKey its PRIVATEKEYBLOB encrypted with the RC4 key of
  // PvKeyPwd. An empty password fails with 87.
  bool GenKeyPairs(Bytes& PbKey, Bytes& PvKey, const Bytes& PvKeyPwd);

  // RC4-encrypts Src with the key of Password (MD5 of its bytes under the level's key length);
  // the cipher text is as long as Src. An empty Src or Password fails with 87.
  bool EncryptByte(const Bytes& Password, const Bytes& Src, Bytes& Output);

  // The inverse of EncryptByte (RC4 is symmetric). An empty Src or Password fails with 87.
  bool DecryptByte(const Bytes& Password, const Bytes& Src, Bytes& Output);

  // Signs the MD5 of Src with the private key in Key (a blob from GenKeyPairs, opened with
  // Password). Output receives the signature, least significant byte first; LastError becomes 0.
  // Errors: NTE_BAD_DATA (wrong password, blob of the other level, damaged blob), NTE_NO_KEY
  // (Key is a public blob), the blob errors below, 87 for an empty argument.
  bool SignHash(const Bytes& Key, const Bytes& Src, Bytes& Output, const Bytes& Password);

  // Checks that Hash is a signature of the MD5 of Src by the key in Key (a PUBLICKEYBLOB, or a
  // clear PRIVATEKEYBLOB). Errors: NTE_BAD_SIGNATURE (no match, or not the modulus length), the
  // blob errors below, 87 for an empty argument.
  //
  // Blob errors: NTE_BAD_LEN (shorter than its header, or a length that does not fit its
  // bitlen), NTE_BAD_TYPE (bType not 6 or 7), NTE_BAD_VER (bVersion not 2), NTE_BAD_KEY (not an
  // RSA key, or a modulus outside 384..16384 bits), NTE_BAD_DATA (anything else that does not
  // form a key).
  bool VerifySignature(const Bytes& Key, const Bytes& Src, const Bytes& Hash);

  // Output receives the 16-byte MD5 of Src. An empty Src fails with 87.
  bool HashByte(const Bytes& Src, Bytes& Output);

  // Output receives Length random bytes. A Length below 1 fails with 87.
  bool GenRandom(int32_t Length, Bytes& Output);

  // Two upper-case hexadecimal digits per byte, in order, no separators ("" for no bytes).
  std::string Byte2Hex(const Bytes& aByte);

  // The bytes of a string of hexadecimal digit pairs (either case). An odd length, a character
  // that is not a hexadecimal digit or fewer than 2 characters give an empty result.
  Bytes Hex2Byte(std::string_view sHex);

  // For the late-binding adapter: records 87 (an argument of the wrong kind) and returns false.
  bool RejectArgument();

 private:
  bool Fail(int32_t code);
  bool Crypt(const Bytes& Password, const Bytes& Src, Bytes& Output);

  std::unique_ptr<crypto_internal::CryptoProvider> provider_;
  CryptoEncryptionLevel level_ = CryptoStrongEncryption;
  std::string provider_name_;
  int32_t last_error_ = 0;
};

}  // namespace pelmora

#endif  // PELMORA_CRYPTO_CRYPTO_H_
