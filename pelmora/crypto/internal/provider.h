// The algorithm provider behind one Crypto object: an OpenSSL library context of its own with the
// default provider (MD5, RSA, random bytes) and the legacy provider (RC4), plus the rules of one
// encryption level (RSA modulus size, password key length and salt).
//
//   std::unique_ptr<CryptoProvider> provider;
//   if (CryptoProvider::Open(CryptoStrongEncryption, provider) != kOk) ...
//   PasswordKey key;
//   provider->DeriveKey(password, key);
//   provider->Rc4(key, plain, cipher.data());
#ifndef PELMORA_CRYPTO_INTERNAL_PROVIDER_H_
#define PELMORA_CRYPTO_INTERNAL_PROVIDER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "pelmora/crypto/crypto_level.h"
#include "pelmora/crypto/internal/crypto_errors.h"
#include "pelmora/crypto/internal/openssl_handles.h"

namespace pelmora::crypto_internal {

inline constexpr std::size_t kMd5Size = 16;
using Md5Digest = std::array<uint8_t, kMd5Size>;

// The bytes the RC4 key schedule runs over for a password: all 16 bytes of the password's MD5
// at the strong level; the first 5 followed by 11 zero bytes (the default salt of a 40-bit key)
// at the base level. Wiped when it goes out of scope.
struct PasswordKey {
  std::array<uint8_t, kMd5Size> bytes{};
  ~PasswordKey() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

// The provider name of a level as the platform calls it.
const char* ProviderName(CryptoEncryptionLevel level);

// The RSA modulus size, in bits, of key pairs generated at a level: 1024 strong, 512 base.
int DefaultRsaBits(CryptoEncryptionLevel level);

// The password key length in bytes at a level before salting: 16 strong, 5 base.
std::size_t PasswordKeyBytes(CryptoEncryptionLevel level);

class CryptoProvider {
 public:
  // Creates the library context, loads the default and legacy providers into it and fetches
  // MD5 and RC4. Fails with NTE_KEYSET_NOT_DEF when a provider or algorithm is unavailable (the
  // legacy module missing, for example) and NTE_NO_MEMORY when memory runs out. Does not block.
  static CryptoStatus Open(CryptoEncryptionLevel level, std::unique_ptr<CryptoProvider>& out);

  ~CryptoProvider();
  CryptoProvider(const CryptoProvider&) = delete;
  CryptoProvider& operator=(const CryptoProvider&) = delete;

  CryptoEncryptionLevel Level() const { return level_; }
  OSSL_LIB_CTX* LibCtx() const { return libctx_.get(); }
  const EVP_MD* Md5Method() const { return md5_.get(); }

  // MD5 of `data` (which may be empty).
  CryptoStatus Md5(std::span<const uint8_t> data, Md5Digest& digest) const;

  // The RC4 key of `password` under this level's rules.
  CryptoStatus DeriveKey(std::span<const uint8_t> password, PasswordKey& key) const;

  // RC4 with a fresh key stream over `in` into `out` (in.size() bytes; `out` may equal `in`).
  CryptoStatus Rc4(const PasswordKey& key, std::span<const uint8_t> in, uint8_t* out) const;

  // A new RSA signature key pair of this level's modulus size, public exponent 65537.
  CryptoStatus GenerateSignatureKey(EvpPkeyPtr& key) const;

  // `size` random bytes from the context's generator into `out`.
  CryptoStatus Random(std::size_t size, uint8_t* out) const;

 private:
  explicit CryptoProvider(CryptoEncryptionLevel level) : level_(level) {}
  CryptoStatus Load();

  CryptoEncryptionLevel level_;
  LibCtxPtr libctx_;
  // Released before the library context that holds them (members die in reverse order).
  ProviderPtr default_provider_;
  ProviderPtr legacy_provider_;
  EvpMdPtr md5_;
  EvpCipherPtr rc4_;
};

}  // namespace pelmora::crypto_internal

#endif  // PELMORA_CRYPTO_INTERNAL_PROVIDER_H_
