// Fuzzes the server clock text reader the way the text reaches it: a text message's UTF-16LE
// bytes, read in both orders of day and month. A date it accepts is a valid calendar date that,
// written back in the year-first form, reads as itself.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/internal/server_text.h"
#include "pelmora/admin/wire_replies.h"

using pelmora::admin::internal::DayOrder;
using pelmora::admin::internal::ParseServerDate;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text =
      pelmora::admin::DecodeWireText(std::span<const std::uint8_t>(data, size));
  for (const DayOrder order : {DayOrder::kMonthFirst, DayOrder::kDayFirst}) {
    const std::optional<pelmora::Date> date = ParseServerDate(text, order);
    if (!date) continue;
    const pelmora::CivilTime civil = date->ToCivil();
    PELMORA_FUZZ_CHECK(pelmora::Date::FromCivil(civil) == date);
    if (civil.year < 1000) continue;
    const std::optional<pelmora::Date> again =
        ParseServerDate(date->Format("yyyy-mm-dd hh:nn:ss"), order);
    PELMORA_FUZZ_CHECK(again == date);
  }
  return 0;
}
