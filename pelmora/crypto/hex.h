// Hexadecimal text of byte arrays, as the Crypto object writes and reads it (Byte2Hex,
// Hex2Byte), for callers that want the conversion without a cryptography provider.
//
//   pelmora::BytesToHex(std::vector<uint8_t>{0, 10, 255});  // "000AFF"
//   pelmora::HexToBytes("000aff");                          // {0, 10, 255}
#ifndef PELMORA_CRYPTO_HEX_H_
#define PELMORA_CRYPTO_HEX_H_

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/platform/export.h"

namespace pelmora {

// Two upper-case digits per byte, in order: {0, 10, 255} gives "000AFF".
PELMORA_API std::string BytesToHex(std::span<const uint8_t> bytes);

// The bytes of digit pairs of either case; an odd length, a non-digit or fewer than 2
// characters give an empty result, never a partial one.
PELMORA_API std::vector<uint8_t> HexToBytes(std::string_view hex);

}  // namespace pelmora

#endif  // PELMORA_CRYPTO_HEX_H_
