// RSA key blobs in the platform's layout, so that keys made here open in programs that call the
// platform's cryptography interface and the other way round. All integers are little-endian and
// big numbers are stored least significant byte first at a fixed width:
//
//   0  bType (6 public, 7 private)   1  bVersion 2   2  reserved 0 (2 bytes)
//   4  aiKeyAlg 0x2400 (signature key; 0xA400 exchange keys are read too)
//   8  magic "RSA1" public / "RSA2" private   12  bitlen   16  public exponent
//   20 modulus (bitlen/8)   private only: prime1, prime2, exponent1, exponent2, coefficient
//      (bitlen/16 each), private exponent (bitlen/8)
//
// A private blob protected by a password keeps bytes 0..7 in the clear and has bytes 8..end
// encrypted with one fresh RC4 stream of the password key.
#ifndef PELMORA_CRYPTO_INTERNAL_KEY_BLOB_H_
#define PELMORA_CRYPTO_INTERNAL_KEY_BLOB_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "pelmora/crypto/internal/crypto_errors.h"
#include "pelmora/crypto/internal/openssl_handles.h"
#include "pelmora/crypto/internal/provider.h"

namespace pelmora::crypto_internal {

inline constexpr uint8_t kPublicKeyBlob = 6;   // PUBLICKEYBLOB
inline constexpr uint8_t kPrivateKeyBlob = 7;  // PRIVATEKEYBLOB
inline constexpr uint8_t kBlobVersion = 2;
inline constexpr uint32_t kSignatureKeyAlg = 0x2400;   // CALG_RSA_SIGN
inline constexpr uint32_t kExchangeKeyAlg = 0xA400;    // CALG_RSA_KEYX
inline constexpr uint32_t kPublicMagic = 0x31415352;   // "RSA1"
inline constexpr uint32_t kPrivateMagic = 0x32415352;  // "RSA2"
inline constexpr std::size_t kBlobHeaderSize = 8;      // the part that is never encrypted
inline constexpr std::size_t kBlobFixedSize = 20;      // header, magic, bitlen, exponent
inline constexpr uint32_t kMinBlobBits = 384;
inline constexpr uint32_t kMaxBlobBits = 16384;

// The size of a public or private blob for a modulus of `bits` bits.
inline constexpr std::size_t PublicBlobSize(uint32_t bits) { return kBlobFixedSize + bits / 8; }
inline constexpr std::size_t PrivateBlobSize(uint32_t bits) {
  return kBlobFixedSize + 9 * (bits / 16);
}

// Writes the public half of an RSA key as a PUBLICKEYBLOB with aiKeyAlg 0x2400.
CryptoStatus ExportPublicKeyBlob(const EVP_PKEY* key, std::vector<uint8_t>& blob);

// Writes an RSA key pair as a clear PRIVATEKEYBLOB with aiKeyAlg 0x2400.
CryptoStatus ExportPrivateKeyBlob(const EVP_PKEY* key, SecretBytes& blob);

// RC4-encrypts (or decrypts: it is the same) bytes 8..end of a private blob in place.
CryptoStatus CryptPrivateBlob(const CryptoProvider& provider, const PasswordKey& key,
                              std::span<uint8_t> blob);

// A key read from a blob, and whether it holds the private half.
struct ImportedKey {
  EvpPkeyPtr key;
  bool has_private = false;
};

// Reads an untrusted public or private blob. A private blob is first decrypted with
// `decrypt_key` when one is given (public blobs are never encrypted, so the key is then unused).
// Every field and length is checked before use. Errors: NTE_BAD_LEN (shorter than its header or
// a length that does not match bitlen), NTE_BAD_TYPE (bType not 6 or 7), NTE_BAD_VER
// (bVersion not 2), NTE_BAD_KEY (not an RSA key algorithm, or a modulus size outside
// 384..16384 bits), NTE_BAD_DATA (reserved bytes set, a wrong magic such as a wrong password
// gives, or numbers that do not form a key).
CryptoStatus ImportKeyBlob(const CryptoProvider& provider, std::span<const uint8_t> blob,
                           const PasswordKey* decrypt_key, ImportedKey& out);

}  // namespace pelmora::crypto_internal

#endif  // PELMORA_CRYPTO_INTERNAL_KEY_BLOB_H_
