#include "pelmora/crypto/internal/crypto_errors.h"

#include "pelmora/common/error_texts.h"

namespace pelmora::crypto_internal {

std::string CryptoErrorText(CryptoStatus code) {
  if (auto text = SystemMessageText(code)) return std::string(*text);
  return "Error Number: " + std::to_string(code);
}

}  // namespace pelmora::crypto_internal
