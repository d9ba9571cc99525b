#include "pelmora/crypto/internal/signature.h"

#include <openssl/crypto.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>

namespace pelmora::crypto_internal {
namespace {

// DER of DigestInfo { AlgorithmIdentifier { md5, NULL }, OCTET STRING (16) }, before the digest.
constexpr std::array<uint8_t, 18> kMd5DigestInfoPrefix = {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08,
                                                          0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d,
                                                          0x02, 0x05, 0x05, 0x00, 0x04, 0x10};

// True when the recovered payload is the DigestInfo of `digest` or the bare digest. The lengths
// are public; the bytes are compared without early exits.
bool PayloadMatches(std::span<const uint8_t> payload, const Md5Digest& digest) {
  if (payload.size() == digest.size()) {
    return CRYPTO_memcmp(payload.data(), digest.data(), digest.size()) == 0;
  }
  if (payload.size() != kMd5DigestInfoPrefix.size() + digest.size()) return false;
  int prefix =
      CRYPTO_memcmp(payload.data(), kMd5DigestInfoPrefix.data(), kMd5DigestInfoPrefix.size());
  int rest =
      CRYPTO_memcmp(payload.data() + kMd5DigestInfoPrefix.size(), digest.data(), digest.size());
  return (prefix | rest) == 0;
}

}  // namespace

std::size_t SignatureSize(const EVP_PKEY* key) {
  int size = EVP_PKEY_get_size(key);
  return size > 0 ? static_cast<std::size_t>(size) : 0;
}

CryptoStatus SignDigest(const CryptoProvider& provider, EVP_PKEY* key, const Md5Digest& digest,
                        std::vector<uint8_t>& signature) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(provider.LibCtx(), key, nullptr));
  if (!ctx) return kNteNoMemory;
  if (EVP_PKEY_sign_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_CTX_set_signature_md(ctx.get(), provider.Md5Method()) != 1) {
    return kNteFail;
  }
  std::vector<uint8_t> made(SignatureSize(key));
  std::size_t size = made.size();
  if (made.empty() ||
      EVP_PKEY_sign(ctx.get(), made.data(), &size, digest.data(), digest.size()) != 1 ||
      size != made.size()) {
    return kNteFail;
  }
  std::reverse(made.begin(), made.end());
  signature = std::move(made);
  return kOk;
}

CryptoStatus VerifyDigest(const CryptoProvider& provider, EVP_PKEY* key, const Md5Digest& digest,
                          std::span<const uint8_t> signature) {
  std::size_t modulus_size = SignatureSize(key);
  if (modulus_size == 0 || signature.size() != modulus_size) return kNteBadSignature;
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(provider.LibCtx(), key, nullptr));
  if (!ctx) return kNteNoMemory;
  if (EVP_PKEY_verify_recover_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1) {
    return kNteFail;
  }
  std::vector<uint8_t> big_endian(signature.rbegin(), signature.rend());
  std::vector<uint8_t> payload(modulus_size);
  std::size_t size = payload.size();
  if (EVP_PKEY_verify_recover(ctx.get(), payload.data(), &size, big_endian.data(),
                              big_endian.size()) != 1 ||
      size > payload.size()) {
    return kNteBadSignature;
  }
  payload.resize(size);
  return PayloadMatches(payload, digest) ? kOk : kNteBadSignature;
}

}  // namespace pelmora::crypto_internal
