#include "pelmora/sched/job_file.h"

#include <gtest/gtest.h>

#include <string>

#include "pelmora/sched/internal/job_file_test_data.h"

namespace pelmora::sched {
namespace {

using testing::FromHex;
using testing::kEmptyJobHex;
using testing::kWineDailyJobHex;

void PutU16At(std::string& bytes, size_t offset, uint16_t value) {
  bytes[offset] = static_cast<char>(value & 0xFF);
  bytes[offset + 1] = static_cast<char>(value >> 8);
}

TEST(JobFile, ReadsEveryFieldOfTheDailyTaskFile) {
  std::string bytes = FromHex(kWineDailyJobHex);
  ASSERT_EQ(bytes.size(), 303u);
  std::optional<JobFile> job = ParseJobFile(bytes);
  ASSERT_TRUE(job);
  EXPECT_EQ(job->product_version, 0x0601);
  EXPECT_EQ(job->uuid[0], 0x41);
  EXPECT_EQ(job->uuid[15], 0xac);
  EXPECT_EQ(job->idle_deadline, 60);
  EXPECT_EQ(job->idle_wait, 10);
  EXPECT_EQ(job->priority, 0x20u);
  EXPECT_EQ(job->max_run_time, 259200000u);
  EXPECT_EQ(job->status, 0x41303u);
  EXPECT_EQ(job->flags, 2u);
  EXPECT_TRUE(job->last_run.IsZero());
  EXPECT_EQ(job->application_name, "C:\\windows\\notepad.exe");
  EXPECT_EQ(job->parameters, "a.txt");
  EXPECT_EQ(job->working_directory, "C:\\tmp");
  EXPECT_EQ(job->author, "Me");
  EXPECT_EQ(job->comment, "Hello");
  EXPECT_EQ(job->user_data, std::string("\x01\x02\x03"));
  EXPECT_EQ(job->reserved_data, std::string("\xff\x0f\x1d\x00\x00\x00\x00\x00", 8));
  ASSERT_EQ(job->triggers.size(), 1u);
  const JobTrigger& t = job->triggers[0];
  EXPECT_EQ(t.begin_year, 2030);
  EXPECT_EQ(t.begin_month, 1);
  EXPECT_EQ(t.begin_day, 2);
  EXPECT_EQ(t.start_hour, 3);
  EXPECT_EQ(t.start_minute, 4);
  EXPECT_EQ(t.type, TriggerType::kDaily);
  EXPECT_EQ(t.data[0], 1);
  EXPECT_EQ(job->signature.size(), 68u);
}

TEST(JobFile, ReferenceFilesRoundTripByteForByte) {
  for (const char* hex : {kWineDailyJobHex, kEmptyJobHex}) {
    std::string bytes = FromHex(hex);
    std::optional<JobFile> job = ParseJobFile(bytes);
    ASSERT_TRUE(job);
    EXPECT_EQ(SerializeJobFile(*job), bytes);
  }
}

TEST(JobFile, EmptyTaskFileHoldsOnlyThePlaceholderTrigger) {
  std::optional<JobFile> job = ParseJobFile(FromHex(kEmptyJobHex));
  ASSERT_TRUE(job);
  EXPECT_EQ(job->status, 0x41305u);
  EXPECT_EQ(job->application_name, "");
  EXPECT_EQ(job->user_data, "");
  ASSERT_EQ(job->triggers.size(), 1u);
  EXPECT_EQ(job->triggers[0].flags, kTriggerDisabled);
}

TEST(JobFile, NewTaskWithNoTriggersAndNoStringsIsTheEmptyLayout) {
  JobFile job;
  job.triggers.push_back(JobTrigger{});
  EXPECT_EQ(SerializeJobFile(job).size(), 220u);
}

TEST(JobFile, OddUserDataGivesAnOddTriggerOffset) {
  JobFile job;
  job.user_data = "abc";
  std::string bytes = SerializeJobFile(job);
  EXPECT_EQ(static_cast<uint8_t>(bytes[22]) % 2, 1);
  ASSERT_TRUE(ParseJobFile(bytes));
  EXPECT_EQ(ParseJobFile(bytes)->user_data, "abc");
}

TEST(JobFile, AbsentStringsAndMissingSignatureAreAccepted) {
  JobFile job;
  job.application_name = "x";
  std::string bytes = SerializeJobFile(job);
  bytes.resize(bytes.size() - 68);  // no signature
  std::optional<JobFile> read = ParseJobFile(bytes);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->signature, "");
  EXPECT_EQ(read->application_name, "x");
}

TEST(JobFile, NonAsciiTextSurvivesTheRoundTrip) {
  JobFile job;
  job.comment = "Sauvegarde \xc3\xa9t\xc3\xa9 \xe2\x82\xac";
  std::optional<JobFile> read = ParseJobFile(SerializeJobFile(job));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->comment, job.comment);
}

// Hostile and corrupt files: each edit of a valid file must be refused.
struct HostileCase {
  const char* what;
  void (*edit)(std::string&);
};

const HostileCase kHostile[] = {
    {"short fixed section", [](std::string& b) { b.resize(60); }},
    {"file version 2", [](std::string& b) { PutU16At(b, 2, 2); }},
    {"application offset not 70", [](std::string& b) { PutU16At(b, 20, 72); }},
    {"trigger offset elsewhere", [](std::string& b) { PutU16At(b, 22, 186); }},
    {"string count overruns", [](std::string& b) { PutU16At(b, 70, 0xFFFF); }},
    {"user data overruns", [](std::string& b) { PutU16At(b, 170, 0xFFFF); }},
    {"absurd trigger count", [](std::string& b) { PutU16At(b, 185, 0xFFFF); }},
    {"trigger size not 48", [](std::string& b) { PutU16At(b, 187, 47); }},
    {"truncated trigger", [](std::string& b) { b.resize(200); }},
    {"oversized file", [](std::string& b) { b.resize(kMaxJobFileSize + 1); }},
};

TEST(JobFile, HostileFilesAreRefused) {
  const std::string valid = FromHex(kWineDailyJobHex);
  for (const HostileCase& c : kHostile) {
    std::string bytes = valid;
    c.edit(bytes);
    EXPECT_FALSE(ParseJobFile(bytes)) << c.what;
  }
  EXPECT_FALSE(ParseJobFile(""));
}

TEST(JobFile, StateBytesPatchInPlace) {
  std::string bytes = FromHex(kWineDailyJobHex);
  JobState state{7, 0x41300, 2, {2026, 11, 1, 23, 12, 30, 5, 0}, 1};
  bytes.replace(kJobStateOffset, kJobStateSize, SerializeJobState(state));
  std::optional<JobFile> job = ParseJobFile(bytes);
  ASSERT_TRUE(job);
  EXPECT_EQ(job->exit_code, 7u);
  EXPECT_EQ(job->status, 0x41300u);
  EXPECT_EQ(job->last_run.day, 23);
  EXPECT_EQ(job->instance_count, 1);
  std::optional<JobState> back = ParseJobState(bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->last_run, state.last_run);
  EXPECT_FALSE(ParseJobState(bytes.substr(0, 69)));
}

TEST(JobFile, StartErrorLivesInTheReservedData) {
  JobFile job;
  EXPECT_EQ(StartError(job), 0u);
  SetStartError(job, 0x80070002);
  EXPECT_EQ(job.reserved_data.size(), 8u);
  EXPECT_EQ(StartError(job), 0x80070002u);
  std::optional<JobFile> read = ParseJobFile(SerializeJobFile(job));
  ASSERT_TRUE(read);
  EXPECT_EQ(StartError(*read), 0x80070002u);
}

}  // namespace
}  // namespace pelmora::sched
