// The numbers of an RSA key as separate big numbers: read from an OpenSSL key for export, checked
// and turned into an OpenSSL key on import.
#ifndef PELMORA_CRYPTO_INTERNAL_RSA_NUMBERS_H_
#define PELMORA_CRYPTO_INTERNAL_RSA_NUMBERS_H_

#include <openssl/evp.h>

#include "pelmora/crypto/internal/crypto_errors.h"
#include "pelmora/crypto/internal/openssl_handles.h"

namespace pelmora::crypto_internal {

// Modulus and public exponent, and for a key pair the private exponent and the CRT values in the
// blob's order (prime1, prime2, exponent1, exponent2, coefficient = prime2^-1 mod prime1).
struct RsaNumbers {
  BignumPtr n, e;
  BignumPtr p, q, dmp1, dmq1, iqmp, d;
};

// Reads the public numbers, and the private ones when `with_private`, from an RSA key.
CryptoStatus ReadRsaNumbers(const EVP_PKEY* key, bool with_private, RsaNumbers& out);

// Checks that the numbers form a usable key (odd modulus and exponent; for a key pair
// prime1 * prime2 = modulus, exponents and coefficient consistent): NTE_BAD_DATA otherwise.
// The checks are cheap modular products, not primality tests.
CryptoStatus CheckRsaNumbers(const RsaNumbers& numbers, bool with_private);

// Builds an OpenSSL key in `libctx` from checked numbers.
CryptoStatus BuildRsaKey(OSSL_LIB_CTX* libctx, const RsaNumbers& numbers, bool with_private,
                         EvpPkeyPtr& out);

}  // namespace pelmora::crypto_internal

#endif  // PELMORA_CRYPTO_INTERNAL_RSA_NUMBERS_H_
