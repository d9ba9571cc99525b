// The scheduled task file (".job"): a 68-byte fixed section, the running instance count, five
// UTF-16LE strings, user data, reserved data, the triggers and an optional signature, all
// little-endian. Files written here can be copied to and from the platform's task folder.
//
//   std::optional<JobFile> job = ParseJobFile(bytes);   // nullopt: a corrupt or hostile file
//   job->application_name = "/usr/bin/backup";
//   std::string out = SerializeJobFile(*job);
//
// The reader is bounded: every length is checked against the bytes that remain, and files larger
// than kMaxJobFileSize are refused.
#ifndef PELMORA_SCHED_JOB_FILE_H_
#define PELMORA_SCHED_JOB_FILE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/platform/export.h"

namespace pelmora::sched {

// The largest .job file read (a real one is a few hundred bytes).
inline constexpr size_t kMaxJobFileSize = 1 << 20;

// Byte offsets the runner patches in place: exit code, status, flags, last run time and the
// running instance count lie in [kJobStateOffset, kJobStateOffset + kJobStateSize).
inline constexpr size_t kJobStateOffset = 40;
inline constexpr size_t kJobStateSize = 30;
inline constexpr size_t kJobFlagsOffset = 48;

// Trigger types.
enum class TriggerType : uint32_t {
  kOnce = 0,
  kDaily = 1,
  kWeekly = 2,
  kMonthlyDate = 3,
  kMonthlyDow = 4,
  kOnIdle = 5,
  kAtSystemStart = 6,
  kAtLogon = 7,
};

// Trigger flags.
inline constexpr uint32_t kTriggerHasEndDate = 0x1;
inline constexpr uint32_t kTriggerKillAtDurationEnd = 0x2;
inline constexpr uint32_t kTriggerDisabled = 0x4;

// A calendar time record: eight 16-bit fields, local time; all zero means "never".
struct PELMORA_API SystemTime {
  uint16_t year = 0;
  uint16_t month = 0;
  uint16_t day_of_week = 0;
  uint16_t day = 0;
  uint16_t hour = 0;
  uint16_t minute = 0;
  uint16_t second = 0;
  uint16_t milliseconds = 0;
  bool IsZero() const {
    return year == 0 && month == 0 && day == 0 && hour == 0 && minute == 0 && second == 0 &&
           milliseconds == 0 && day_of_week == 0;
  }
  friend bool operator==(const SystemTime&, const SystemTime&) = default;
};

// One 48-byte trigger record. `data` holds the type-specific words: daily {days interval};
// weekly {weeks interval, days of week}; monthly by date {days low, days high, months}; monthly
// by weekday {which week 1-5, days of week, months}. Days of the week: Sunday 0x1 .. Saturday 0x40.
struct PELMORA_API JobTrigger {
  uint16_t size = 48;
  uint16_t reserved1 = 0;
  uint16_t begin_year = 0;
  uint16_t begin_month = 0;
  uint16_t begin_day = 0;
  uint16_t end_year = 0;
  uint16_t end_month = 0;
  uint16_t end_day = 0;
  uint16_t start_hour = 0;
  uint16_t start_minute = 0;
  uint32_t minutes_duration = 0;
  uint32_t minutes_interval = 0;
  uint32_t flags = 0;
  TriggerType type = TriggerType::kDaily;
  std::array<uint16_t, 3> data = {1, 0, 0};
  uint16_t padding = 0;
  uint16_t reserved2 = 0;
  uint16_t random_minutes = 0;
  friend bool operator==(const JobTrigger&, const JobTrigger&) = default;
};

// The whole content of a .job file. Strings are UTF-8 here and UTF-16LE in the file.
struct PELMORA_API JobFile {
  uint16_t product_version = 0x0501;
  uint16_t file_version = 1;
  std::array<uint8_t, 16> uuid = {};
  uint16_t error_retry_count = 0;
  uint16_t error_retry_interval = 0;
  uint16_t idle_deadline = 60;
  uint16_t idle_wait = 10;
  uint32_t priority = 0x20;
  uint32_t max_run_time = 259200000;
  uint32_t exit_code = 0;
  uint32_t status = 0x00041305;
  uint32_t flags = 0;
  SystemTime last_run;
  uint16_t instance_count = 0;
  std::string application_name;
  std::string parameters;
  std::string working_directory;
  std::string author;
  std::string comment;
  std::string user_data;
  std::string reserved_data = std::string(8, '\0');  // start error (4), task flags (4)
  std::vector<JobTrigger> triggers;
  std::string signature;  // raw 68 bytes when the file has a complete one, else empty
};

// The state bytes the runner rewrites in place (offsets 40..69).
struct PELMORA_API JobState {
  uint32_t exit_code = 0;
  uint32_t status = 0;
  uint32_t flags = 0;
  SystemTime last_run;
  uint16_t instance_count = 0;
};

// Parses a .job file; nullopt for a file that is short, overruns a length, has a file version
// other than 1, a trigger size other than 48, inconsistent offsets or more than kMaxJobFileSize
// bytes. Does not block.
PELMORA_API std::optional<JobFile> ParseJobFile(std::string_view bytes);

// A new task's settings: the defaults with a fresh random Job UUID (a version 4 GUID in the
// file's byte layout).
PELMORA_API JobFile NewJobFile();

// The bytes of `job`: empty strings as one NUL, a trigger offset computed from the lengths, the
// signature kept or a blank one (versions 1, 1 and 64 zero bytes) written.
PELMORA_API std::string SerializeJobFile(const JobFile& job);

// The state bytes of `job` (30 bytes, for offset kJobStateOffset).
PELMORA_API std::string SerializeJobState(const JobState& state);

// The state of a file's bytes, nullopt when it is shorter than 70 bytes.
PELMORA_API std::optional<JobState> ParseJobState(std::string_view bytes);

// The start error held in the reserved data (0 when it has fewer than 4 bytes).
PELMORA_API uint32_t StartError(const JobFile& job);

// Sets the start error, making the reserved data 8 bytes long when it is shorter.
PELMORA_API void SetStartError(JobFile& job, uint32_t start_error);

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_JOB_FILE_H_
