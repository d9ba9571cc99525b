// Text forms of numbers and dates for Variant conversions (not installed).
#ifndef PELMORA_COMMON_INTERNAL_VARIANT_TEXT_H_
#define PELMORA_COMMON_INTERNAL_VARIANT_TEXT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "pelmora/common/date.h"

namespace pelmora::internal {

// The number a text stands for: optional spaces and sign, digits with "," group separators, an
// optional fraction and exponent ("E" or "D"), or "&H"/"&O" hexadecimal/octal (up to 4 digits
// read as a 16-bit, up to 8 as a 32-bit signed value). nullopt when the text is not a number.
// Raises 6 "Overflow" when the number is beyond a Double.
std::optional<double> ParseNumberText(std::string_view text);

// "True"/"False" in any case, surrounded by optional spaces; nullopt otherwise.
std::optional<bool> ParseBoolText(std::string_view text);

// A number with up to `digits` significant digits, exponent form when needed ("1E+20").
std::string FormatNumberText(double value, int digits);

// A Currency amount (value times 10000) with its trailing fraction zeros removed.
std::string FormatCurrencyText(int64_t scaled);

// "M/D/YYYY h:nn:ss AM"; the date alone when the time is midnight, the time alone when the
// date is the zero day.
std::string FormatDateText(Date date);

// A date read from the forms that Variant::ToDate documents; nullopt when it is none of them.
std::optional<Date> ParseDateText(std::string_view text);

}  // namespace pelmora::internal

#endif  // PELMORA_COMMON_INTERNAL_VARIANT_TEXT_H_
