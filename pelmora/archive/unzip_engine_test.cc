// The unzip engine against archives made by the real zip program and by hand: what extraction,
// testing and listing print and return, broken archives, and the callbacks that stop a run.
#include "pelmora/archive/unzip_engine.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "pelmora/testing/unzip_engine_fixture.h"

namespace pelmora::archive {
namespace {

using testing::Exists;
using testing::kText;
using testing::ReadFile;
using testing::RunIn;
using testing::UnzipEngine;
using testing::WriteFile;

TEST_F(UnzipEngine, ExtractsBytesModesAndTimesOfZipArchive) {
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), kText);
  EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")), "bee\n");
  struct stat src {}, out {};
  ASSERT_EQ(stat(dir_.Path("src/sub/b.txt").c_str(), &src), 0);
  ASSERT_EQ(stat(dir_.Path("out/sub/b.txt").c_str(), &out), 0);
  EXPECT_EQ(out.st_mode & 0777, 0640u);
  EXPECT_EQ(out.st_mtime, src.st_mtime);  // odd seconds come back from the UT field
  std::string out_dir = dir_.Path("out");
  EXPECT_EQ(printed_, "  inflating: " + out_dir + "/a.txt  \n   creating: " + out_dir +
                          "/sub/\n extracting: " + out_dir + "/sub/b.txt  \n");
}

TEST_F(UnzipEngine, TestPrintsEachEntryAndTheSummary) {
  dcl_.test = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  std::string zip = dir_.Path("a.zip");
  EXPECT_EQ(printed_,
            "    testing: a.txt                    OK\n"
            "    testing: sub/                     OK\n"
            "    testing: sub/b.txt                OK\n"
            "No errors detected in compressed data of " + zip + ".\n");
  EXPECT_FALSE(Exists(dir_.Path("out")));
}

TEST_F(UnzipEngine, TestWithNamesCountsTheFilesTested) {
  dcl_.test = 1;
  dcl_.quiet = 1;
  selection_.include = {"a.txt", "zzz"};
  ASSERT_EQ(Run(), kUnzipFind);
  EXPECT_EQ(printed_, "caution: filename not matched:  zzz\nAt least one error was detected in " +
                          dir_.Path("a.zip") + ".\n");
}

TEST_F(UnzipEngine, BadCrcIsAnErrorInTheZipfile) {
  std::string bytes = ReadFile(dir_.Path("a.zip"));
  size_t at = bytes.find("PK\x01\x02");
  ASSERT_NE(at, std::string::npos);
  bytes[at + 16] ^= 0x55;  // the central CRC of a.txt
  size_t local = 0;
  bytes[local + 14] ^= 0x55;  // and the local one, so that only the data disagrees
  WriteFile(dir_.Path("a.zip"), bytes);
  dcl_.test = 1;
  EXPECT_EQ(Run(), kUnzipErr);
  EXPECT_NE(printed_.find("    testing: a.txt                    bad CRC "), std::string::npos)
      << printed_;
  EXPECT_NE(printed_.find("At least one error was detected in"), std::string::npos);
}

// A file whose data fails its check is never left behind: not under its own name when that was
// free, and not over the file it would have replaced.
TEST_F(UnzipEngine, EntryWithBadDataLeavesNothingAndReplacesNothing) {
  std::string bytes = ReadFile(dir_.Path("a.zip"));
  size_t at = bytes.find("PK\x01\x02");
  ASSERT_NE(at, std::string::npos);
  bytes[at + 16] ^= 0x55;  // the central and local CRCs of a.txt
  bytes[14] ^= 0x55;
  WriteFile(dir_.Path("a.zip"), bytes);
  for (bool existing : {false, true}) {
    SCOPED_TRACE(existing ? "over an existing file" : "under a free name");
    std::filesystem::remove_all(dir_.Path("out"));
    if (existing) WriteFile(dir_.Path("out/a.txt"), "old");
    EXPECT_EQ(Run(), kUnzipErr);
    EXPECT_NE(printed_.find("  inflating: " + dir_.Path("out/a.txt")), std::string::npos)
        << printed_;
    EXPECT_NE(printed_.find(" bad CRC "), std::string::npos) << printed_;
    if (existing) {
      EXPECT_EQ(ReadFile(dir_.Path("out/a.txt")), "old");
    } else {
      EXPECT_FALSE(Exists(dir_.Path("out/a.txt")));
    }
    EXPECT_EQ(ReadFile(dir_.Path("out/sub/b.txt")), "bee\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.Path("out")),
                            std::filesystem::directory_iterator()),
              existing ? 2 : 1);  // no temporary file either
  }
}

// Entries small enough to be inflated whole and larger ones that stream come out the same, on
// either side of the limit and of the streaming chunk size.
TEST_F(UnzipEngine, EntriesOfEverySizeComeOutIntact) {
  std::vector<std::pair<std::string, std::string>> files;
  uint32_t seed = 7;
  auto text = [&](size_t size) {
    static const char* const kWords[] = {"alpha ", "beta ", "gamma\n", "delta ", "epsilon "};
    std::string out;
    while (out.size() < size) {
      seed = seed * 1103515245 + 12345;
      out += kWords[(seed >> 16) % 5];
    }
    out.resize(size);
    return out;
  };
  for (size_t size : {size_t{0}, size_t{1}, size_t{65536}, size_t{65537}, size_t{8} << 20,
                      (size_t{8} << 20) + 1}) {
    files.emplace_back("f" + std::to_string(size), text(size));
    WriteFile(dir_.Path("big/" + files.back().first), files.back().second);
  }
  // Streamed and compressible a thousandfold: the inflater holds output back after its last input.
  files.emplace_back("same", std::string((size_t{9} << 20) + 5, 'z'));
  WriteFile(dir_.Path("big/same"), files.back().second);
  ASSERT_EQ(RunIn(dir_.Path("big"), "zip -q -r ../big.zip . && zip -q -0 ../big.zip f1"), 0);
  dcl_.zip_file_name = dir_.Path("big.zip");
  ASSERT_EQ(Run(), kUnzipOk) << printed_;
  for (const auto& [name, contents] : files) {
    EXPECT_EQ(ReadFile(dir_.Path("out/" + name)), contents) << name;
  }
  dcl_.test = 1;
  EXPECT_EQ(Run(), kUnzipOk) << printed_;
}

struct BrokenArchive {
  const char* label;
  std::string contents;
  bool create = true;
  int code = 0;
  const char* message = "";
};

class UnzipBrokenArchive : public UnzipEngine,
                           public ::testing::WithParamInterface<BrokenArchive> {};

TEST_P(UnzipBrokenArchive, FailsWithTheUnzipCodeAndMessage) {
  const BrokenArchive& c = GetParam();
  std::string path = dir_.Path("broken.zip");
  if (c.create) WriteFile(path, c.contents == "TRUNCATED" ? ReadFile(dir_.Path("a.zip")).substr(0, 100)
                                                          : c.contents);
  dcl_.zip_file_name = path;
  EXPECT_EQ(Run(), c.code);
  EXPECT_NE(printed_.find(c.message), std::string::npos) << printed_;
  EXPECT_FALSE(Exists(dir_.Path("out")));
}

const std::string kEmptyArchive = std::string("PK\x05\x06", 4) + std::string(18, '\0');

INSTANTIATE_TEST_SUITE_P(
    Cases, UnzipBrokenArchive,
    ::testing::Values(
        BrokenArchive{"not_a_zip", "hello, world", true, kUnzipNoZip,
                      "End-of-central-directory signature not found."},
        BrokenArchive{"zero_bytes", "", true, kUnzipNoZip, "cannot find zipfile directory in"},
        BrokenArchive{"truncated", "TRUNCATED", true, kUnzipNoZip, "period.\n"},
        BrokenArchive{"missing", "", false, kUnzipNoZip, "UnZip DLL:  cannot find either "},
        BrokenArchive{"empty", kEmptyArchive, true, kUnzipWarn, "]:  zipfile is empty\n"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST_F(UnzipEngine, ServiceCallbackStopsTheRunWith80) {
  int calls = 0;
  callbacks_.service = [&](std::string_view name, uint64_t size) {
    ++calls;
    EXPECT_EQ(name, "a.txt");
    EXPECT_EQ(size, kText.size());
    return 1;
  };
  EXPECT_EQ(Run(), kUnzipCtrlC);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(Exists(dir_.Path("out/sub")));
}

TEST_F(UnzipEngine, MissingCallbacksAreASevereError) {
  callbacks_.replace = nullptr;
  EXPECT_EQ(Run(), kUnzipBadErr);
}

TEST_F(UnzipEngine, ListingSendsEveryEntryToTheMessageCallback) {
  dcl_.list = 1;
  std::vector<ListedEntry> listed;
  callbacks_.message = [&](const ListedEntry& entry) { listed.push_back(entry); };
  ASSERT_EQ(Run(), kUnzipOk);
  ASSERT_EQ(listed.size(), 3u);
  EXPECT_EQ(listed[0].name, "a.txt");
  EXPECT_EQ(listed[0].size, kText.size());
  EXPECT_EQ(listed[0].method, "Defl:N");
  EXPECT_EQ(listed[0].compression_factor, 99u);
  EXPECT_EQ(listed[0].crypt, ' ');
  EXPECT_EQ(listed[0].year, 21u);
  EXPECT_EQ(listed[0].month, 3u);
  EXPECT_EQ(listed[0].day, 4u);
  EXPECT_EQ(listed[0].hour, 5u);
  EXPECT_EQ(listed[0].minute, 6u);
  EXPECT_EQ(listed[2].method, "Stored");
  EXPECT_FALSE(Exists(dir_.Path("out")));
}

TEST_F(UnzipEngine, ConvertsLineFeedsOfTextEntries) {
  WriteFile(dir_.Path("src/t.txt"), "one\ntwo\r\nthree\n");
  ASSERT_EQ(RunIn(dir_.Path("src"), "zip ../t.zip t.txt"), 0);
  dcl_.zip_file_name = dir_.Path("t.zip");
  dcl_.convert_text = 1;
  ASSERT_EQ(Run(), kUnzipOk);
  EXPECT_EQ(ReadFile(dir_.Path("out/t.txt")), "one\r\ntwo\r\nthree\r\n");
  EXPECT_NE(printed_.find("[text]"), std::string::npos);
}

}  // namespace
}  // namespace pelmora::archive
