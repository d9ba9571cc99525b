// Values shared by the Crypto object's tests: the platform's error numbers as callers see them
// (written out, not taken from the implementation) and byte-array shorthands.
#ifndef PELMORA_CRYPTO_INTERNAL_TEST_VALUES_H_
#define PELMORA_CRYPTO_INTERNAL_TEST_VALUES_H_

#include <cstdint>
#include <string_view>
#include <vector>

#include "pelmora/crypto/hex.h"

namespace pelmora::crypto_testing {

using Bytes = std::vector<uint8_t>;

inline constexpr int32_t kNteBadKey = -2146893821;
inline constexpr int32_t kNteBadLen = -2146893820;
inline constexpr int32_t kNteBadData = -2146893819;
inline constexpr int32_t kNteBadSignature = -2146893818;
inline constexpr int32_t kNteBadVer = -2146893817;
inline constexpr int32_t kNteBadType = -2146893814;
inline constexpr int32_t kNteNoKey = -2146893811;
inline constexpr int32_t kNteKeysetNotDef = -2146893799;

inline Bytes FromText(std::string_view text) { return Bytes(text.begin(), text.end()); }
inline Bytes FromHex(std::string_view hex) { return HexToBytes(hex); }

}  // namespace pelmora::crypto_testing

#endif  // PELMORA_CRYPTO_INTERNAL_TEST_VALUES_H_
