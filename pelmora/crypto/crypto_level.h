// The encryption levels of the Crypto object.
#ifndef PELMORA_CRYPTO_CRYPTO_LEVEL_H_
#define PELMORA_CRYPTO_CRYPTO_LEVEL_H_

#include <cstdint>

namespace pelmora {

// Which provider behaviour a Crypto object follows. The strong level derives 128-bit RC4 keys
// from passwords and generates 1024-bit RSA keys; the base level derives 40-bit RC4 keys (with an
// 11-byte zero salt) and generates 512-bit RSA keys.
enum CryptoEncryptionLevel : int32_t {
  CryptoStrongEncryption = 0,
  CryptoBaseEncryption = 1,
};

}  // namespace pelmora

#endif  // PELMORA_CRYPTO_CRYPTO_LEVEL_H_
