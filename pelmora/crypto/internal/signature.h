// RSASSA-PKCS1-v1_5 signatures over an MD5 digest, in the platform's byte order: least
// significant byte first (the reverse of the usual big-endian RSA output), exactly as long as
// the modulus.
#ifndef PELMORA_CRYPTO_INTERNAL_SIGNATURE_H_
#define PELMORA_CRYPTO_INTERNAL_SIGNATURE_H_

#include <cstdint>
#include <span>
#include <vector>

#include "pelmora/crypto/internal/crypto_errors.h"
#include "pelmora/crypto/internal/provider.h"

namespace pelmora::crypto_internal {

// The byte length of a signature made with `key` (the modulus length).
std::size_t SignatureSize(const EVP_PKEY* key);

// Signs `digest` (with the MD5 DigestInfo) with a private key; `signature` receives the
// reversed-order signature. NTE_FAIL when OpenSSL refuses.
CryptoStatus SignDigest(const CryptoProvider& provider, EVP_PKEY* key, const Md5Digest& digest,
                        std::vector<uint8_t>& signature);

// Checks a reversed-order signature of `digest` with the public half of `key`. Signatures with
// the MD5 DigestInfo and signatures of the bare digest are both accepted. NTE_BAD_SIGNATURE
// when the length is not the modulus length or the signature does not match.
CryptoStatus VerifyDigest(const CryptoProvider& provider, EVP_PKEY* key, const Md5Digest& digest,
                          std::span<const uint8_t> signature);

}  // namespace pelmora::crypto_internal

#endif  // PELMORA_CRYPTO_INTERNAL_SIGNATURE_H_
