// Fuzzes the text form of task triggers (what `pelmora tasks create` reads from its user): whatever
// ParseTrigger accepts formats to text that reads back to the same trigger, and the next run time
// of an accepted trigger never lies before the time it was asked after.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "pelmora/common/date.h"
#include "pelmora/sched/trigger.h"

using pelmora::Date;
using namespace pelmora::sched;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const Date today = *Date::FromCivil({.year = 2009, .month = 3, .day = 14, .hour = 20, .minute = 5});
  std::optional<JobTrigger> trigger = ParseTrigger(text, today);
  if (!trigger) return 0;
  std::string formatted = FormatTrigger(*trigger);
  std::optional<JobTrigger> again = ParseTrigger(formatted, today);
  PELMORA_FUZZ_CHECK(again);
  PELMORA_FUZZ_CHECK(*again == *trigger);
  PELMORA_FUZZ_CHECK(FormatTrigger(*again) == formatted);
  if (std::optional<Date> next = NextTriggerTime(*trigger, today)) PELMORA_FUZZ_CHECK(*next > today);
  return 0;
}
