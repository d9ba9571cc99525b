// The error numbers the Crypto object leaves in LastError or raises: the platform's own numbers,
// as signed 32-bit values, so that callers that test for them keep working.
#ifndef PELMORA_CRYPTO_INTERNAL_CRYPTO_ERRORS_H_
#define PELMORA_CRYPTO_INTERNAL_CRYPTO_ERRORS_H_

#include <cstdint>
#include <string>

namespace pelmora::crypto_internal {

// A numbered outcome: 0 is success, anything else is the number LastError takes.
using CryptoStatus = int32_t;

inline constexpr CryptoStatus kOk = 0;
inline constexpr CryptoStatus kErrorInvalidParameter = 87;  // ERROR_INVALID_PARAMETER
inline constexpr CryptoStatus kErrorMoreData = 234;         // ERROR_MORE_DATA
inline constexpr CryptoStatus kNteBadKey = static_cast<int32_t>(0x80090003u);
inline constexpr CryptoStatus kNteBadLen = static_cast<int32_t>(0x80090004u);
inline constexpr CryptoStatus kNteBadData = static_cast<int32_t>(0x80090005u);
inline constexpr CryptoStatus kNteBadSignature = static_cast<int32_t>(0x80090006u);
inline constexpr CryptoStatus kNteBadVer = static_cast<int32_t>(0x80090007u);
inline constexpr CryptoStatus kNteBadType = static_cast<int32_t>(0x8009000Au);
inline constexpr CryptoStatus kNteNoKey = static_cast<int32_t>(0x8009000Du);
inline constexpr CryptoStatus kNteNoMemory = static_cast<int32_t>(0x8009000Eu);
inline constexpr CryptoStatus kNteKeysetNotDef = static_cast<int32_t>(0x80090019u);
inline constexpr CryptoStatus kNteFail = static_cast<int32_t>(0x80090020u);

// The source of every error the Crypto object raises.
inline constexpr const char* kCryptoSource = "Crypto Class";

// The text for a platform error code: its system message, or "Error Number: " and the code in
// decimal when there is none.
std::string CryptoErrorText(CryptoStatus code);

}  // namespace pelmora::crypto_internal

#endif  // PELMORA_CRYPTO_INTERNAL_CRYPTO_ERRORS_H_
