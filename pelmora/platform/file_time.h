// FILETIME (100-nanosecond intervals since 1601-01-01 UTC) to Unix time and back, the one
// conversion the client, the service and dates share.
//
//   uint64_t ft = pelmora::platform::FileTimeFromUnix(0, 0);   // 116444736000000000
//   pelmora::platform::UnixTime t = pelmora::platform::UnixFromFileTime(ft);  // {0, 0}
#ifndef PELMORA_PLATFORM_FILE_TIME_H_
#define PELMORA_PLATFORM_FILE_TIME_H_

#include <cstdint>

#include "pelmora/platform/export.h"

namespace pelmora::platform {

// Seconds between 1601-01-01 and 1970-01-01.
inline constexpr int64_t kFileTimeUnixEpochSeconds = 11644473600;
inline constexpr int64_t kFileTimeTicksPerSecond = 10000000;

// A time since 1970-01-01 UTC; `nanoseconds` is in [0, 999999999].
struct PELMORA_API UnixTime {
  int64_t seconds = 0;
  int64_t nanoseconds = 0;
};

// The FILETIME of a Unix time, to the 100 ns below it; 0 for a time before 1601, the largest
// FILETIME for one beyond its range.
PELMORA_API uint64_t FileTimeFromUnix(int64_t seconds, int64_t nanoseconds);

// The Unix time of a FILETIME (exact: every FILETIME has one).
PELMORA_API UnixTime UnixFromFileTime(uint64_t filetime);

}  // namespace pelmora::platform

#endif  // PELMORA_PLATFORM_FILE_TIME_H_
