#include "pelmora/crypto/crypto.h"

#include <new>
#include <stdexcept>
#include <utility>

#include "pelmora/common/error.h"
#include "pelmora/crypto/hex.h"
#include "pelmora/crypto/internal/crypto_errors.h"
#include "pelmora/crypto/internal/key_blob.h"
#include "pelmora/crypto/internal/provider.h"
#include "pelmora/crypto/internal/signature.h"

namespace pelmora {
namespace {

using crypto_internal::CryptoProvider;
using crypto_internal::CryptoStatus;
using crypto_internal::kErrorInvalidParameter;
using crypto_internal::kOk;

// Loads the providers of `level`, or raises the error of a context that cannot be acquired.
std::unique_ptr<CryptoProvider> AcquireProvider(CryptoEncryptionLevel level) {
  std::unique_ptr<CryptoProvider> provider;
  CryptoStatus status = CryptoProvider::Open(level, provider);
  if (status == kOk) return provider;
  if (status == crypto_internal::kNteKeysetNotDef) {
    throw Error(status,
                std::string("\"") + crypto_internal::ProviderName(level) + "\" does not installed",
                crypto_internal::kCryptoSource);
  }
  throw Error(status, crypto_internal::CryptoErrorText(status), crypto_internal::kCryptoSource);
}

// Runs one member's work with the thread's OpenSSL error queue restored afterwards; running out
// of memory ends in NTE_NO_MEMORY instead of an exception.
template <typename Work>
CryptoStatus Guarded(Work&& work) noexcept {
  crypto_internal::ErrorQueueGuard errors;
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return crypto_internal::kNteNoMemory;
  } catch (const std::length_error&) {
    return crypto_internal::kNteNoMemory;
  }
}

}  // namespace

Crypto::Crypto()
    : provider_(AcquireProvider(CryptoStrongEncryption)),
      provider_name_(crypto_internal::ProviderName(CryptoStrongEncryption)) {}

Crypto::~Crypto() = default;

void Crypto::EncryptionLevel(CryptoEncryptionLevel level) {
  if (level != CryptoStrongEncryption && level != CryptoBaseEncryption) {
    throw Error(380, "Invalid Propery Value", crypto_internal::kCryptoSource);
  }
  if (level == level_) return;
  provider_ = AcquireProvider(level);  // the old provider stays when this raises
  level_ = level;
  provider_name_ = crypto_internal::ProviderName(level);
}

bool Crypto::Fail(int32_t code) {
  if (code == kOk) return true;
  last_error_ = code;
  return false;
}

bool Crypto::RejectArgument() { return Fail(kErrorInvalidParameter); }

bool Crypto::GenKeyPairs(Bytes& PbKey, Bytes& PvKey, const Bytes& PvKeyPwd) {
  if (PvKeyPwd.empty()) return Fail(kErrorInvalidParameter);
  return Fail(Guarded([&]() -> CryptoStatus {
    crypto_internal::EvpPkeyPtr key;
    Bytes public_blob;
    crypto_internal::SecretBytes private_blob;
    crypto_internal::PasswordKey password_key;
    CryptoStatus status = provider_->GenerateSignatureKey(key);
    if (status == kOk) status = crypto_internal::ExportPublicKeyBlob(key.get(), public_blob);
    if (status == kOk) status = crypto_internal::ExportPrivateKeyBlob(key.get(), private_blob);
    if (status == kOk) status = provider_->DeriveKey(PvKeyPwd, password_key);
    if (status == kOk) {
      status = crypto_internal::CryptPrivateBlob(*provider_, password_key, private_blob);
    }
    if (status != kOk) return status;
    PbKey = std::move(public_blob);
    PvKey.assign(private_blob.begin(), private_blob.end());
    return kOk;
  }));
}

bool Crypto::Crypt(const Bytes& Password, const Bytes& Src, Bytes& Output) {
  if (Password.empty() || Src.empty()) return Fail(kErrorInvalidParameter);
  return Fail(Guarded([&]() -> CryptoStatus {
    crypto_internal::PasswordKey key;
    Bytes result(Src.size());
    CryptoStatus status = provider_->DeriveKey(Password, key);
    if (status == kOk) status = provider_->Rc4(key, Src, result.data());
    if (status == kOk) Output = std::move(result);
    return status;
  }));
}

bool Crypto::EncryptByte(const Bytes& Password, const Bytes& Src, Bytes& Output) {
  return Crypt(Password, Src, Output);
}

bool Crypto::DecryptByte(const Bytes& Password, const Bytes& Src, Bytes& Output) {
  return Crypt(Password, Src, Output);
}

bool Crypto::SignHash(const Bytes& Key, const Bytes& Src, Bytes& Output, const Bytes& Password) {
  if (Password.empty() || Key.empty() || Src.empty()) return Fail(kErrorInvalidParameter);
  bool signed_ok = Fail(Guarded([&]() -> CryptoStatus {
    crypto_internal::PasswordKey password_key;
    crypto_internal::ImportedKey key;
    crypto_internal::Md5Digest digest;
    Bytes signature;
    CryptoStatus status = provider_->DeriveKey(Password, password_key);
    if (status == kOk) status = crypto_internal::ImportKeyBlob(*provider_, Key, &password_key, key);
    if (status == kOk && !key.has_private) status = crypto_internal::kNteNoKey;
    if (status == kOk) status = provider_->Md5(Src, digest);
    if (status == kOk) {
      status = crypto_internal::SignDigest(*provider_, key.key.get(), digest, signature);
    }
    if (status == kOk) Output = std::move(signature);
    return status;
  }));
  if (signed_ok) last_error_ = 0;
  return signed_ok;
}

bool Crypto::VerifySignature(const Bytes& Key, const Bytes& Src, const Bytes& Hash) {
  if (Src.empty() || Key.empty() || Hash.empty()) return Fail(kErrorInvalidParameter);
  return Fail(Guarded([&]() -> CryptoStatus {
    crypto_internal::ImportedKey key;
    crypto_internal::Md5Digest digest;
    CryptoStatus status = provider_->Md5(Src, digest);
    if (status == kOk) status = crypto_internal::ImportKeyBlob(*provider_, Key, nullptr, key);
    if (status == kOk) {
      status = crypto_internal::VerifyDigest(*provider_, key.key.get(), digest, Hash);
    }
    return status;
  }));
}

bool Crypto::HashByte(const Bytes& Src, Bytes& Output) {
  if (Src.empty()) return Fail(kErrorInvalidParameter);
  return Fail(Guarded([&]() -> CryptoStatus {
    crypto_internal::Md5Digest digest;
    CryptoStatus status = provider_->Md5(Src, digest);
    if (status == kOk) Output.assign(digest.begin(), digest.end());
    return status;
  }));
}

bool Crypto::GenRandom(int32_t Length, Bytes& Output) {
  if (Length < 1) return Fail(kErrorInvalidParameter);
  return Fail(Guarded([&]() -> CryptoStatus {
    Bytes random(static_cast<std::size_t>(Length));
    CryptoStatus status = provider_->Random(random.size(), random.data());
    if (status == kOk) Output = std::move(random);
    return status;
  }));
}

std::string Crypto::Byte2Hex(const Bytes& aByte) { return BytesToHex(aByte); }

Crypto::Bytes Crypto::Hex2Byte(std::string_view sHex) { return HexToBytes(sHex); }

}  // namespace pelmora
