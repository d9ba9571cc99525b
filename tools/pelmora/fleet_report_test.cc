// Fleet reports: live line prefixes, --group and --gather blocks, the JSON shape, the summary
// table and the failed-hosts file.
#include "tools/pelmora/fleet_report.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace pelmora_tool {
namespace {

HostRecord Record(std::string name, int status, std::string output,
                  std::optional<HostFailure> failure = std::nullopt, int32_t port = 0) {
  HostRecord record;
  record.target = {std::move(name), port};
  record.port = port == 0 ? 8002 : port;
  record.finished = true;
  record.status = status;
  record.output = std::move(output);
  record.failure = std::move(failure);
  record.seconds = 0.25;
  return record;
}

std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(LinePrefixer, PrefixesWholeLinesWhateverTheChunking) {
  LinePrefixer live("web01: ");
  EXPECT_EQ(live.Feed("fir"), "");
  EXPECT_EQ(live.Feed("st\nsecond\nthi"), "web01: first\nweb01: second\n");
  EXPECT_EQ(live.Feed("rd"), "");
  EXPECT_EQ(live.Feed("\n\n"), "web01: third\nweb01: \n");
  EXPECT_EQ(live.Flush(), "");
  EXPECT_EQ(live.Feed("tail"), "");
  EXPECT_EQ(live.Flush(), "web01: tail\n");
  EXPECT_EQ(live.Flush(), "");
}

TEST(FleetReport, GroupBlockHeadsTheOutputWithTheHost) {
  EXPECT_EQ(GroupBlock(Record("db1", 0, "a\nb")), "=== db1 ===\na\nb\n");
  EXPECT_EQ(GroupBlock(Record("db1", 0, "", std::nullopt, 8003)), "=== db1:8003 ===\n");
}

TEST(FleetReport, GatherPrintsIdenticalOutputsOnceUnderTheirHosts) {
  HostFailure refused{10061, "No connection could be made."};
  std::vector<HostRecord> records = {Record("web01", 0, "Linux\n"), Record("web02", 0, "Linux"),
                                     Record("web03", 3, "", refused), Record("db1", 0, "BSD\n"),
                                     Record("web04", 0, "Linux\n"), Record("web05", 3, "", refused)};
  EXPECT_EQ(GatherBlocks(records),
            "=== web[01-02,04] (3 hosts) ===\nLinux\n"
            "=== web[03,05] (2 hosts) ===\npelmora: 10061 No connection could be made.\n"
            "=== db1 (1 host) ===\nBSD\n");
}

TEST(FleetReport, JsonLineHasTheDocumentedShape) {
  EXPECT_EQ(JsonLine(Record("web01", 0, "up 3 days\n")),
            R"({"host":"web01","port":8002,"status":0,"remote_status":null,"result":"ok",)"
            R"("seconds":0.25,)"
            R"("output":"up 3 days\n","error":null})"
            "\n");
  HostRecord failed = Record("db1", 3, "", HostFailure{5, "Logon failure"}, 8003);
  nlohmann::json parsed = nlohmann::json::parse(JsonLine(failed));
  EXPECT_EQ(parsed["port"], 8003);
  EXPECT_EQ(parsed["result"], "failed");
  EXPECT_EQ(parsed["error"]["number"], 5);
  EXPECT_EQ(parsed["error"]["description"], "Logon failure");
}

TEST(FleetReport, RemoteStatusIsKnownUnknownOrAbsentInTableAndJson) {
  HostRecord exited = Record("web01", 1, "");
  exited.remote_status = 1;
  HostRecord plain = Record("web02", 1, "", HostFailure{0, "status unknown"});
  plain.remote_status_unknown = true;
  EXPECT_EQ(nlohmann::json::parse(JsonLine(exited))["remote_status"], 1);
  EXPECT_EQ(nlohmann::json::parse(JsonLine(exited))["result"], "failed");
  EXPECT_EQ(nlohmann::json::parse(JsonLine(plain))["remote_status"], "unknown");
  std::string table = SummaryTable({exited, plain}, std::chrono::duration<double>(1));
  EXPECT_NE(table.find("web01  failed        1"), std::string::npos) << table;
  EXPECT_NE(table.find("web02  failed        ?"), std::string::npos) << table;
  // Both count as failed for --failed-file.
  std::string failed_file = ::testing::TempDir() + "/remote_status_failed.txt";
  WriteFailedFile(failed_file, {exited, plain, Record("web03", 0, "")});
  std::ifstream in(failed_file);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, "web01\nweb02\n");
}

TEST(FleetReport, JsonLineReplacesBytesThatAreNotUtf8) {
  nlohmann::json parsed = nlohmann::json::parse(JsonLine(Record("h", 0, "caf\xE9")));
  EXPECT_EQ(parsed["output"], "caf\xEF\xBF\xBD");
}

TEST(FleetReport, SummaryTableListsEveryHostAndTheTotals) {
  HostRecord late = Record("slow", 6, "");
  late.finished = false;
  std::vector<HostRecord> records = {Record("web01", 0, ""),
                                     Record("db1", 3, "", HostFailure{5, "Logon failure"}, 8003),
                                     late};
  EXPECT_EQ(SummaryTable(records, std::chrono::duration<double>(1.5)),
            "HOST      RESULT     EXIT      TIME  ERROR\n"
            "web01     ok            0    0.250s\n"
            "db1:8003  failed        3    0.250s  5 Logon failure\n"
            "slow      timed out     6    0.250s\n"
            "3 hosts: 1 ok, 2 failed, 1.500 s\n");
}

TEST(FleetReport, FilesForOutputsAndFailedHosts) {
  std::filesystem::path dir = std::filesystem::temp_directory_path() / "pelmora_fleet_report";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  std::vector<HostRecord> records = {Record("web01", 0, "hello\n"),
                                     Record("db1", 3, "", HostFailure{5, "Logon failure"}, 8003),
                                     Record("web02", 1, "missing\n")};
  for (const HostRecord& record : records) WriteOutputFiles(dir.string(), record);
  EXPECT_EQ(ReadAll(dir / "web01"), "hello\n");
  EXPECT_FALSE(std::filesystem::exists(dir / "web01.err"));
  EXPECT_EQ(ReadAll(dir / "db1:8003.err"), "pelmora: db1:8003: 5 Logon failure\n");
  WriteFailedFile((dir / "failed").string(), records);
  EXPECT_EQ(ReadAll(dir / "failed"), "db1:8003\nweb02\n");
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace pelmora_tool
