// Password hashes for the accounts: crypt(3) from libxcrypt, yescrypt ("$y$") for new hashes.
//
//   std::string hash = pelmorad::HashPassword("secret");   // "$y$j9T$..."
//   bool ok = pelmorad::VerifyPassword("secret", hash);    // true
//   VerifiedPasswords remembered;                           // the service's, for logins
//   remembered.Verify("secret", hash);                      // slow once, then fast
#ifndef PELMORAD_PASSWORD_H_
#define PELMORAD_PASSWORD_H_

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace pelmorad {

// A new yescrypt hash of `password` with a fresh random salt. Throws pelmora::Error 8 when
// libcrypt cannot make a salt or a hash. Takes tens of milliseconds of CPU on purpose.
std::string HashPassword(std::string_view password);

// True when `password` matches `hash` (any method crypt(3) knows). A malformed hash, a password
// with a NUL byte or an empty one never match. Compares in constant time; as slow as hashing.
bool VerifyPassword(std::string_view password, std::string_view hash);

// VerifyPassword that remembers success, so that an account opening many sessions with the same
// password (a fleet fan-out) pays the hash's cost once instead of at every login. For each hash it
// keeps only an HMAC-SHA256 of the last password that matched, under a random key that lives in
// this object alone; a different password, and every wrong one, is verified in full, so guessing
// costs what it always did. A hash that changes (a reloaded configuration) starts afresh.
// Thread-safe.
class VerifiedPasswords {
 public:
  VerifiedPasswords();
  VerifiedPasswords(const VerifiedPasswords&) = delete;
  VerifiedPasswords& operator=(const VerifiedPasswords&) = delete;

  bool Verify(std::string_view password, std::string_view hash);

  // How many verifications ran the hash in full.
  int64_t FullVerifications() const;

 private:
  using Tag = std::array<unsigned char, 32>;
  static constexpr size_t kMaxHashes = 1024;  // more distinct hashes than that start afresh

  Tag TagOf(std::string_view password, std::string_view hash) const;

  std::array<unsigned char, 32> key_{};
  mutable std::mutex mutex_;
  std::unordered_map<std::string, Tag> remembered_;  // hash -> tag of its password
  int64_t full_verifications_ = 0;
};

}  // namespace pelmorad

#endif  // PELMORAD_PASSWORD_H_
