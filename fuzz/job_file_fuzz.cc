// Fuzzes the .job file reader: whatever it accepts must write back to bytes it reads again with
// the same fields, and writing those is a fixed point.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "pelmora/sched/job_file.h"

using namespace pelmora::sched;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  ParseJobState(bytes);
  std::optional<JobFile> job = ParseJobFile(bytes);
  if (!job) return 0;
  PELMORA_FUZZ_CHECK(job->triggers.size() * 48 <= size);
  std::string written = SerializeJobFile(*job);
  std::optional<JobFile> again = ParseJobFile(written);
  PELMORA_FUZZ_CHECK(again);
  PELMORA_FUZZ_CHECK(again->triggers == job->triggers && again->flags == job->flags &&
                     again->user_data == job->user_data && again->last_run == job->last_run);
  PELMORA_FUZZ_CHECK(SerializeJobFile(*again) == written);
  return 0;
}
