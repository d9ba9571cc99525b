#include "pelmora/crypto/internal/provider.h"

#include <openssl/core_names.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>

namespace pelmora::crypto_internal {
namespace {

constexpr int kStrongRsaBits = 1024;
constexpr int kBaseRsaBits = 512;
constexpr std::size_t kBaseKeyBytes = 5;  // 40 bits; the other 11 bytes are the zero salt

}  // namespace

const char* ProviderName(CryptoEncryptionLevel level) {
  return level == CryptoBaseEncryption ? "Microsoft Base Cryptographic Provider v1.0"
                                       : "Microsoft Enhanced Cryptographic Provider v1.0";
}

int DefaultRsaBits(CryptoEncryptionLevel level) {
  return level == CryptoBaseEncryption ? kBaseRsaBits : kStrongRsaBits;
}

std::size_t PasswordKeyBytes(CryptoEncryptionLevel level) {
  return level == CryptoBaseEncryption ? kBaseKeyBytes : kMd5Size;
}

CryptoStatus CryptoProvider::Open(CryptoEncryptionLevel level,
                                  std::unique_ptr<CryptoProvider>& out) {
  ErrorQueueGuard errors;
  std::unique_ptr<CryptoProvider> provider(new (std::nothrow) CryptoProvider(level));
  if (!provider) return kNteNoMemory;
  if (CryptoStatus status = provider->Load(); status != kOk) return status;
  out = std::move(provider);
  return kOk;
}

CryptoProvider::~CryptoProvider() = default;

CryptoStatus CryptoProvider::Load() {
  libctx_.reset(OSSL_LIB_CTX_new());
  if (!libctx_) return kNteNoMemory;
  // The context never reads a configuration file: only these two providers are in it.
  default_provider_.reset(OSSL_PROVIDER_load(libctx_.get(), "default"));
  legacy_provider_.reset(OSSL_PROVIDER_load(libctx_.get(), "legacy"));
  if (!default_provider_ || !legacy_provider_) return kNteKeysetNotDef;
  md5_.reset(EVP_MD_fetch(libctx_.get(), "MD5", nullptr));
  rc4_.reset(EVP_CIPHER_fetch(libctx_.get(), "RC4", nullptr));
  if (!md5_ || !rc4_) return kNteKeysetNotDef;
  return kOk;
}

CryptoStatus CryptoProvider::Md5(std::span<const uint8_t> data, Md5Digest& digest) const {
  unsigned int size = 0;
  if (EVP_Digest(data.data(), data.size(), digest.data(), &size, md5_.get(), nullptr) != 1 ||
      size != kMd5Size) {
    return kNteFail;
  }
  return kOk;
}

CryptoStatus CryptoProvider::DeriveKey(std::span<const uint8_t> password, PasswordKey& key) const {
  Md5Digest digest;
  CryptoStatus status = Md5(password, digest);
  if (status == kOk) {
    key.bytes.fill(0);
    std::copy_n(digest.begin(), PasswordKeyBytes(level_), key.bytes.begin());
  }
  OPENSSL_cleanse(digest.data(), digest.size());
  return status;
}

CryptoStatus CryptoProvider::Rc4(const PasswordKey& key, std::span<const uint8_t> in,
                                 uint8_t* out) const {
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return kNteNoMemory;
  if (EVP_EncryptInit_ex2(ctx.get(), rc4_.get(), key.bytes.data(), nullptr, nullptr) != 1) {
    return kNteFail;
  }
  // EVP takes int lengths: feed large inputs in bounded pieces.
  constexpr std::size_t kPiece = std::size_t{1} << 30;
  for (std::size_t done = 0; done < in.size();) {
    std::size_t piece = std::min(kPiece, in.size() - done);
    int written = 0;
    if (EVP_EncryptUpdate(ctx.get(), out + done, &written, in.data() + done,
                          static_cast<int>(piece)) != 1 ||
        static_cast<std::size_t>(written) != piece) {
      return kNteFail;
    }
    done += piece;
  }
  return kOk;
}

CryptoStatus CryptoProvider::GenerateSignatureKey(EvpPkeyPtr& key) const {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(libctx_.get(), "RSA", nullptr));
  if (!ctx) return kNteNoMemory;
  EVP_PKEY* made = nullptr;
  if (EVP_PKEY_keygen_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), DefaultRsaBits(level_)) != 1 ||
      EVP_PKEY_generate(ctx.get(), &made) != 1) {
    return kNteFail;
  }
  key.reset(made);
  return kOk;
}

CryptoStatus CryptoProvider::Random(std::size_t size, uint8_t* out) const {
  return RAND_bytes_ex(libctx_.get(), out, size, 0) == 1 ? kOk : kNteFail;
}

}  // namespace pelmora::crypto_internal
