// Owning handles for the OpenSSL objects the Crypto object uses, and a byte buffer that wipes
// itself.
//
//   EvpMdCtxPtr ctx(EVP_MD_CTX_new());
//   if (!ctx) return kNteNoMemory;
//   SecretBytes key(16);  // OPENSSL_cleanse'd when freed or reallocated
#ifndef PELMORA_CRYPTO_INTERNAL_OPENSSL_HANDLES_H_
#define PELMORA_CRYPTO_INTERNAL_OPENSSL_HANDLES_H_

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/provider.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

namespace pelmora::crypto_internal {

// Calls a C release function from a unique_ptr.
template <auto kRelease>
struct Releaser {
  template <typename T>
  void operator()(T* handle) const noexcept {
    kRelease(handle);
  }
};

using LibCtxPtr = std::unique_ptr<OSSL_LIB_CTX, Releaser<OSSL_LIB_CTX_free>>;
using ProviderPtr = std::unique_ptr<OSSL_PROVIDER, Releaser<OSSL_PROVIDER_unload>>;
using EvpMdPtr = std::unique_ptr<EVP_MD, Releaser<EVP_MD_free>>;
using EvpCipherPtr = std::unique_ptr<EVP_CIPHER, Releaser<EVP_CIPHER_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, Releaser<EVP_MD_CTX_free>>;
using EvpCipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, Releaser<EVP_CIPHER_CTX_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, Releaser<BN_CTX_free>>;
using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, Releaser<OSSL_PARAM_BLD_free>>;
using ParamsPtr = std::unique_ptr<OSSL_PARAM, Releaser<OSSL_PARAM_free>>;
// Big numbers may hold key material: they are always wiped before they are freed.
using BignumPtr = std::unique_ptr<BIGNUM, Releaser<BN_clear_free>>;

// An allocator that wipes memory with OPENSSL_cleanse before giving it back, so that a vector of
// secrets leaves nothing behind when it grows, shrinks or dies.
template <typename T>
struct CleansingAllocator {
  using value_type = T;
  CleansingAllocator() = default;
  template <typename U>
  CleansingAllocator(const CleansingAllocator<U>&) noexcept {}
  T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }
  void deallocate(T* p, std::size_t n) noexcept {
    OPENSSL_cleanse(p, n * sizeof(T));
    std::allocator<T>().deallocate(p, n);
  }
  template <typename U>
  bool operator==(const CleansingAllocator<U>&) const noexcept {
    return true;
  }
};

// Bytes that hold a secret (a password key, a decrypted private key blob).
using SecretBytes = std::vector<uint8_t, CleansingAllocator<uint8_t>>;

// Restores the thread's OpenSSL error queue to what it was on entry, so that failures inside the
// Crypto object never show up in an application's own error checks.
class ErrorQueueGuard {
 public:
  ErrorQueueGuard() { ERR_set_mark(); }
  ~ErrorQueueGuard() { ERR_pop_to_mark(); }
  ErrorQueueGuard(const ErrorQueueGuard&) = delete;
  ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;
};

}  // namespace pelmora::crypto_internal

#endif  // PELMORA_CRYPTO_INTERNAL_OPENSSL_HANDLES_H_
