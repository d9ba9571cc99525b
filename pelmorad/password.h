// Password hashes for the accounts: crypt(3) from libxcrypt, yescrypt ("$y$") for new hashes.
//
//   std::string hash = pelmorad::HashPassword("secret");   // "$y$j9T$..."
//   bool ok = pelmorad::VerifyPassword("secret", hash);    // true
#ifndef PELMORAD_PASSWORD_H_
#define PELMORAD_PASSWORD_H_

#include <string>
#include <string_view>

namespace pelmorad {

// A new yescrypt hash of `password` with a fresh random salt. Throws pelmora::Error 8 when
// libcrypt cannot make a salt or a hash. Takes tens of milliseconds of CPU on purpose.
std::string HashPassword(std::string_view password);

// True when `password` matches `hash` (any method crypt(3) knows). A malformed hash, a password
// with a NUL byte or an empty one never match. Compares in constant time; as slow as hashing.
bool VerifyPassword(std::string_view password, std::string_view hash);

}  // namespace pelmorad

#endif  // PELMORAD_PASSWORD_H_
