// Hexadecimal text of byte arrays, as the Crypto object writes and reads it.
#ifndef PELMORA_CRYPTO_INTERNAL_HEX_H_
#define PELMORA_CRYPTO_INTERNAL_HEX_H_

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pelmora::crypto_internal {

// Two upper-case digits per byte, in order: {0, 10, 255} gives "000AFF".
std::string BytesToHex(std::span<const uint8_t> bytes);

// The bytes of digit pairs of either case; an odd length, a non-digit or fewer than 2
// characters give an empty result, never a partial one.
std::vector<uint8_t> HexToBytes(std::string_view hex);

}  // namespace pelmora::crypto_internal

#endif  // PELMORA_CRYPTO_INTERNAL_HEX_H_
