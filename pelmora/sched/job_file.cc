// Reading and writing .job files. The reader walks the bytes with a cursor that refuses to move
// past the end, so no length in the file can make it read outside the buffer.
#include "pelmora/sched/job_file.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "pelmora/common/codepage.h"
#include "pelmora/platform/little_endian.h"

namespace pelmora::sched {
namespace {

constexpr uint16_t kAppNameOffset = 70;
constexpr size_t kFixedSize = 68;
constexpr size_t kSignatureSize = 68;

// The bounded little-endian reader over the file's bytes, with Take giving text.
class Cursor : public platform::LeReader {
 public:
  explicit Cursor(std::string_view bytes)
      : LeReader(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size())) {}

  std::string_view Take(size_t count) {
    std::span<const uint8_t> taken = LeReader::Take(count);
    return {reinterpret_cast<const char*>(taken.data()), taken.size()};
  }
};

void PutU16(std::string& out, uint16_t value) { platform::AppendLe(out, value); }

void PutU32(std::string& out, uint32_t value) { platform::AppendLe(out, value); }

SystemTime ReadSystemTime(Cursor& in) {
  SystemTime t;
  for (uint16_t* field : {&t.year, &t.month, &t.day_of_week, &t.day, &t.hour, &t.minute, &t.second,
                          &t.milliseconds}) {
    *field = in.U16();
  }
  return t;
}

void PutSystemTime(std::string& out, const SystemTime& t) {
  for (uint16_t field :
       {t.year, t.month, t.day_of_week, t.day, t.hour, t.minute, t.second, t.milliseconds}) {
    PutU16(out, field);
  }
}

// A counted UTF-16LE string: the count includes the terminating NUL; 0 means absent.
std::string ReadString(Cursor& in) {
  uint16_t count = in.U16();
  std::string_view units = in.Take(size_t{count} * 2);
  if (units.size() >= 2 && units[units.size() - 2] == 0 && units[units.size() - 1] == 0) {
    units.remove_suffix(2);
  }
  std::string text = Utf16LeToUtf8(units);
  // A NUL inside the string ends it, as the platform's readers see it.
  if (size_t nul = text.find('\0'); nul != std::string::npos) text.resize(nul);
  return text;
}

void PutString(std::string& out, std::string_view utf8) {
  std::string units = Utf8ToUtf16Le(utf8);
  size_t count = units.size() / 2 + 1;
  if (count > 0xFFFF) {  // keep the count honest: cut the text to what the field can hold
    units.resize(0xFFFE * 2);
    count = 0xFFFF;
  }
  PutU16(out, static_cast<uint16_t>(count));
  out += units;
  out.append(2, '\0');
}

void PutSized(std::string& out, std::string_view bytes) {
  std::string_view kept = bytes.substr(0, 0xFFFF);
  PutU16(out, static_cast<uint16_t>(kept.size()));
  out += kept;
}

JobTrigger ReadTrigger(Cursor& in) {
  JobTrigger t;
  t.size = in.U16();
  t.reserved1 = in.U16();
  for (uint16_t* field : {&t.begin_year, &t.begin_month, &t.begin_day, &t.end_year, &t.end_month,
                          &t.end_day, &t.start_hour, &t.start_minute}) {
    *field = in.U16();
  }
  t.minutes_duration = in.U32();
  t.minutes_interval = in.U32();
  t.flags = in.U32();
  t.type = static_cast<TriggerType>(in.U32());
  for (uint16_t& word : t.data) word = in.U16();
  t.padding = in.U16();
  t.reserved2 = in.U16();
  t.random_minutes = in.U16();
  return t;
}

void PutTrigger(std::string& out, const JobTrigger& t) {
  PutU16(out, 48);
  PutU16(out, t.reserved1);
  for (uint16_t field : {t.begin_year, t.begin_month, t.begin_day, t.end_year, t.end_month,
                         t.end_day, t.start_hour, t.start_minute}) {
    PutU16(out, field);
  }
  PutU32(out, t.minutes_duration);
  PutU32(out, t.minutes_interval);
  PutU32(out, t.flags);
  PutU32(out, static_cast<uint32_t>(t.type));
  for (uint16_t word : t.data) PutU16(out, word);
  PutU16(out, t.padding);
  PutU16(out, t.reserved2);
  PutU16(out, t.random_minutes);
}

// The fixed section up to the state bytes; returns the trigger offset field.
uint16_t ReadFixedHead(Cursor& in, JobFile& job, uint16_t& app_offset) {
  job.product_version = in.U16();
  job.file_version = in.U16();
  std::string_view uuid = in.Take(16);
  if (uuid.size() == 16) std::memcpy(job.uuid.data(), uuid.data(), 16);
  app_offset = in.U16();
  uint16_t trigger_offset = in.U16();
  job.error_retry_count = in.U16();
  job.error_retry_interval = in.U16();
  job.idle_deadline = in.U16();
  job.idle_wait = in.U16();
  job.priority = in.U32();
  job.max_run_time = in.U32();
  return trigger_offset;
}

JobState ReadState(Cursor& in) {
  JobState s;
  s.exit_code = in.U32();
  s.status = in.U32();
  s.flags = in.U32();
  s.last_run = ReadSystemTime(in);
  s.instance_count = in.U16();
  return s;
}

void ApplyState(JobFile& job, const JobState& s) {
  job.exit_code = s.exit_code;
  job.status = s.status;
  job.flags = s.flags;
  job.last_run = s.last_run;
  job.instance_count = s.instance_count;
}

// The strings, user data and reserved data; false when they overrun.
bool ReadVariableFields(Cursor& in, JobFile& job) {
  for (std::string* text : {&job.application_name, &job.parameters, &job.working_directory,
                            &job.author, &job.comment}) {
    *text = ReadString(in);
  }
  job.user_data = std::string(in.Take(in.U16()));
  job.reserved_data = std::string(in.Take(in.U16()));
  return in.ok();
}

bool ReadTriggers(Cursor& in, JobFile& job) {
  uint16_t count = in.U16();
  if (!in.ok() || size_t{count} * 48 > in.remaining()) return false;
  job.triggers.reserve(count);
  for (uint16_t i = 0; i < count; ++i) {
    job.triggers.push_back(ReadTrigger(in));
    if (job.triggers.back().size != 48) return false;
  }
  return in.ok();
}

// Keeps a complete signature with versions 1 and 1; anything else is ignored.
void ReadSignature(Cursor& in, JobFile& job) {
  if (in.remaining() < kSignatureSize) return;
  std::string_view raw = in.Take(kSignatureSize);
  if (raw.substr(0, 4) == std::string_view("\x01\x00\x01\x00", 4)) job.signature = raw;
}

}  // namespace

JobFile NewJobFile() {
  JobFile job;
  std::random_device random;
  for (size_t i = 0; i < job.uuid.size(); i += 4) {
    uint32_t word = random();
    std::memcpy(job.uuid.data() + i, &word, 4);
  }
  job.uuid[7] = static_cast<uint8_t>((job.uuid[7] & 0x0F) | 0x40);  // Data3's high byte: version 4
  job.uuid[8] = static_cast<uint8_t>((job.uuid[8] & 0x3F) | 0x80);  // Data4[0]: the variant
  return job;
}

std::optional<JobFile> ParseJobFile(std::string_view bytes) {
  if (bytes.size() > kMaxJobFileSize) return std::nullopt;
  Cursor in(bytes);
  JobFile job;
  uint16_t app_offset = 0;
  uint16_t trigger_offset = ReadFixedHead(in, job, app_offset);
  ApplyState(job, ReadState(in));
  if (!in.ok() || job.file_version != 1 || app_offset != kAppNameOffset) return std::nullopt;
  if (!ReadVariableFields(in, job) || in.position() != trigger_offset) return std::nullopt;
  if (!ReadTriggers(in, job)) return std::nullopt;
  ReadSignature(in, job);
  return job;
}

std::string SerializeJobFile(const JobFile& job) {
  std::string body;  // from the application name to the end of the reserved data
  for (const std::string* text : {&job.application_name, &job.parameters, &job.working_directory,
                                  &job.author, &job.comment}) {
    PutString(body, *text);
  }
  PutSized(body, job.user_data);
  PutSized(body, job.reserved_data);
  std::string out;
  out.reserve(kFixedSize + 2 + body.size() + 2 + 48 * job.triggers.size() + kSignatureSize);
  PutU16(out, job.product_version);
  PutU16(out, job.file_version);
  out.append(reinterpret_cast<const char*>(job.uuid.data()), job.uuid.size());
  PutU16(out, kAppNameOffset);
  PutU16(out, static_cast<uint16_t>(kAppNameOffset + body.size()));
  for (uint16_t v :
       {job.error_retry_count, job.error_retry_interval, job.idle_deadline, job.idle_wait}) {
    PutU16(out, v);
  }
  PutU32(out, job.priority);
  PutU32(out, job.max_run_time);
  out +=
      SerializeJobState({job.exit_code, job.status, job.flags, job.last_run, job.instance_count});
  out += body;
  size_t count = std::min<size_t>(job.triggers.size(), 0xFFFF);
  PutU16(out, static_cast<uint16_t>(count));
  for (size_t i = 0; i < count; ++i) PutTrigger(out, job.triggers[i]);
  if (job.signature.size() == kSignatureSize) {
    out += job.signature;
  } else {
    out += std::string("\x01\x00\x01\x00", 4) + std::string(64, '\0');
  }
  return out;
}

std::string SerializeJobState(const JobState& state) {
  std::string out;
  PutU32(out, state.exit_code);
  PutU32(out, state.status);
  PutU32(out, state.flags);
  PutSystemTime(out, state.last_run);
  PutU16(out, state.instance_count);
  return out;
}

std::optional<JobState> ParseJobState(std::string_view bytes) {
  if (bytes.size() < kJobStateOffset + kJobStateSize) return std::nullopt;
  Cursor in(bytes.substr(kJobStateOffset, kJobStateSize));
  return ReadState(in);
}

uint32_t StartError(const JobFile& job) {
  if (job.reserved_data.size() < 4) return 0;
  Cursor in(job.reserved_data);
  return in.U32();
}

void SetStartError(JobFile& job, uint32_t start_error) {
  if (job.reserved_data.size() < 8) job.reserved_data.resize(8, '\0');
  std::string value;
  PutU32(value, start_error);
  job.reserved_data.replace(0, 4, value);
}

}  // namespace pelmora::sched
