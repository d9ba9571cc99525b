#include "pelmorad/password.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "pelmora/common/error.h"

namespace pelmorad {
namespace {

struct FreeDeleter {
  void operator()(void* pointer) const { std::free(pointer); }
};

// crypt_rn into a heap crypt_data (it is large); "" when crypt fails.
std::string Crypt(const std::string& password, const std::string& setting) {
  auto data = std::make_unique<crypt_data>();
  const char* result = crypt_rn(password.c_str(), setting.c_str(), data.get(), sizeof(crypt_data));
  if (result == nullptr || result[0] == '*') return "";
  return result;
}

}  // namespace

std::string HashPassword(std::string_view password) {
  std::unique_ptr<char, FreeDeleter> setting(crypt_gensalt_ra("$y$", 0, nullptr, 0));
  if (!setting) throw pelmora::Error(8, "cannot make a password salt", "pelmorad");
  std::string hash = Crypt(std::string(password), setting.get());
  if (hash.empty()) throw pelmora::Error(8, "cannot hash the password", "pelmorad");
  return hash;
}

bool VerifyPassword(std::string_view password, std::string_view hash) {
  if (password.empty() || hash.empty() || password.find('\0') != std::string_view::npos ||
      hash.find('\0') != std::string_view::npos) {
    return false;
  }
  std::string computed = Crypt(std::string(password), std::string(hash));
  if (computed.size() != hash.size()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < hash.size(); ++i) {
    difference |= static_cast<unsigned char>(computed[i] ^ hash[i]);
  }
  return difference == 0;
}

VerifiedPasswords::VerifiedPasswords() {
  if (RAND_bytes(key_.data(), static_cast<int>(key_.size())) != 1) {
    throw pelmora::Error(8, "cannot make a random key", "pelmorad");
  }
}

VerifiedPasswords::Tag VerifiedPasswords::TagOf(std::string_view password,
                                                std::string_view hash) const {
  std::string message;
  message.reserve(hash.size() + 1 + password.size());
  message.append(hash).push_back('\0');
  message.append(password);
  Tag tag{};
  unsigned int length = 0;
  HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), tag.data(), &length);
  OPENSSL_cleanse(message.data(), message.size());
  return tag;
}

bool VerifiedPasswords::Verify(std::string_view password, std::string_view hash) {
  Tag tag = TagOf(password, hash);
  {
    std::lock_guard lock(mutex_);
    auto found = remembered_.find(std::string(hash));
    if (found != remembered_.end() && CRYPTO_memcmp(found->second.data(), tag.data(), tag.size()) == 0) {
      return true;
    }
    ++full_verifications_;
  }
  if (!VerifyPassword(password, hash)) return false;
  std::lock_guard lock(mutex_);
  if (remembered_.size() >= kMaxHashes) remembered_.clear();
  remembered_[std::string(hash)] = tag;
  return true;
}

int64_t VerifiedPasswords::FullVerifications() const {
  std::lock_guard lock(mutex_);
  return full_verifications_;
}

}  // namespace pelmorad
