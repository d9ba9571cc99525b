#include "pelmora/platform/file_time.h"

#include <limits>

namespace pelmora::platform {

namespace {
constexpr uint64_t kMaxFileTime = std::numeric_limits<uint64_t>::max();
constexpr int64_t kNanosecondsPerTick = 100;
}  // namespace

uint64_t FileTimeFromUnix(int64_t seconds, int64_t nanoseconds) {
  if (seconds < -kFileTimeUnixEpochSeconds) return 0;
  const uint64_t since_1601 = static_cast<uint64_t>(seconds + kFileTimeUnixEpochSeconds);
  const uint64_t ticks = static_cast<uint64_t>(nanoseconds / kNanosecondsPerTick);
  if (since_1601 > (kMaxFileTime - ticks) / kFileTimeTicksPerSecond) return kMaxFileTime;
  return since_1601 * kFileTimeTicksPerSecond + ticks;
}

UnixTime UnixFromFileTime(uint64_t filetime) {
  return UnixTime{
      static_cast<int64_t>(filetime / kFileTimeTicksPerSecond) - kFileTimeUnixEpochSeconds,
      static_cast<int64_t>(filetime % kFileTimeTicksPerSecond) * kNanosecondsPerTick};
}

}  // namespace pelmora::platform
