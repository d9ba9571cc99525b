#include "pelmorad/password.h"

#include <crypt.h>

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

}  // namespace pelmorad
