// Test hook for the library's clock: lets tests pin the time that CurrentLocalTime returns (and so
// the time stamps, month folders and day files of the log writers).
//
//   pelmora::internal::SetClockForTesting([] { return *pelmora::Date::FromCivil({...}); });
//   ...
//   pelmora::internal::SetClockForTesting(nullptr);  // back to the system clock
#ifndef PELMORA_COMMON_INTERNAL_CLOCK_FOR_TESTING_H_
#define PELMORA_COMMON_INTERNAL_CLOCK_FOR_TESTING_H_

#include <functional>

#include "pelmora/common/date.h"

namespace pelmora::internal {

// Replaces the system clock for the whole process; nullptr restores it. Not synchronised: set it
// only while no other thread reads the time.
void SetClockForTesting(std::function<Date()> clock);

}  // namespace pelmora::internal

#endif  // PELMORA_COMMON_INTERNAL_CLOCK_FOR_TESTING_H_
