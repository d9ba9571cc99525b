// Fuzzes the conversions of text Variants (what late-bound callers, the Python module and the
// tool hand the library): every conversion either answers or raises one of its documented numbers,
// a number it reads formats to text that reads back to the same number, and a date it reads
// formats to text that reads back to the same date.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "fuzz/fuzz_check.h"
#include "pelmora/common/error.h"
#include "pelmora/common/variant.h"

using pelmora::Variant;

namespace {

// Runs one conversion; false when it raised (only the documented numbers may be raised).
bool Converts(const std::function<void()>& conversion) {
  try {
    conversion();
    return true;
  } catch (const pelmora::Error& error) {
    PELMORA_FUZZ_CHECK(error.Number() == 6 || error.Number() == 13);
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Variant text(std::string(reinterpret_cast<const char*>(data), size));
  Converts([&] { text.ToInteger(); });
  Converts([&] { text.ToLong(); });
  Converts([&] { text.ToByte(); });
  Converts([&] { text.ToSingle(); });
  Converts([&] { text.ToCurrency(); });
  Converts([&] { text.ToBool(); });
  PELMORA_FUZZ_CHECK(text.ToBytes().size() <= 2 * size);

  double number = 0;
  if (Converts([&] { number = text.ToDouble(); }) && std::isfinite(number)) {
    // Fifteen significant digits is the text form's promise, so compare at that precision; the
    // largest doubles round up past the range in that form and read back as an overflow.
    double again = 0;
    if (Converts([&] { again = Variant(Variant(number).ToString()).ToDouble(); })) {
      PELMORA_FUZZ_CHECK(again == number || std::fabs(again - number) <= std::fabs(number) * 1e-14);
    } else {
      PELMORA_FUZZ_CHECK(std::fabs(number) > 1.79769313486231e308);
    }
  }
  pelmora::Date date;
  if (Converts([&] { date = text.ToDate(); })) {
    const pelmora::Date again = Variant(Variant(date).ToString()).ToDate();
    PELMORA_FUZZ_CHECK(again.ToCivil() == date.ToCivil());
  }
  return 0;
}
