// Fuzz target for key blob import: the bytes are a key blob from an untrusted caller, read as a
// public key (VerifySignature) and as a password-protected private key (SignHash) at both levels.
// Every outcome is a true/false result with LastError; nothing may crash or read out of bounds.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "pelmora/crypto/crypto.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static pelmora::Crypto* strong = new pelmora::Crypto();
  static pelmora::Crypto* base = [] {
    auto* crypto = new pelmora::Crypto();
    crypto->EncryptionLevel(pelmora::CryptoBaseEncryption);
    return crypto;
  }();
  const std::vector<uint8_t> blob(data, data + size);
  const std::vector<uint8_t> message = {'m'};
  const std::vector<uint8_t> password = {'p', 'w'};
  for (pelmora::Crypto* crypto : {strong, base}) {
    std::vector<uint8_t> signature(size > 0 && size <= 2048 ? size : 64, 0x5A);
    crypto->VerifySignature(blob, message, signature);
    crypto->SignHash(blob, message, signature, password);
  }
  return 0;
}
