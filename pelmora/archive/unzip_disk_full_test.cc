// Extraction onto a disk that fails: the write, the rename over an existing file and the create
// each give the disk code 50 with the engine's message, and no partial file is left behind. Files
// are created on the write-behind workers, yet one that cannot be created is reported in its
// place, before anything its data would have said.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "pelmora/archive/internal/test_archives.h"
#include "pelmora/archive/unzip_engine.h"
#include "pelmora/testing/fault_file_api.h"

namespace pelmora::archive {
namespace {

using pelmora::testing::FaultFileApi;
using pelmora::testing::FileCall;
using pelmora::testing::NamesIn;
using testing::BuildArchive;
using testing::Exists;
using testing::ReadFile;
using testing::ScratchFolder;
using testing::TestEntry;
using testing::WriteFile;

struct Case {
  FileCall call;
  int error;
  bool existing;  // a.txt is already there (replaced through a temporary and a rename)
};

class UnzipDiskFull : public ::testing::TestWithParam<Case> {};

TEST_P(UnzipDiskFull, GivesTheDiskCodeAndLeavesNoPartialFile) {
  ScratchFolder dir;
  DecompressionControl dcl;
  dcl.zip_file_name = dir.Path("d.zip");
  dcl.extract_dir = dir.Path("out");
  dcl.overwrite = 1;
  ASSERT_TRUE(BuildArchive(dcl.zip_file_name, {{"a.txt", std::string(200000, 'x')}}));
  if (GetParam().existing) WriteFile(dir.Path("out/a.txt"), "old");
  std::filesystem::create_directories(dcl.extract_dir);
  std::string printed;
  UnzipCallbacks callbacks = testing::Recording(printed);
  int code = 0;
  {
    FaultFileApi faults;
    faults.FailFromNext(GetParam().call, GetParam().error);
    code = RunUnzip(dcl, callbacks);
  }
  EXPECT_EQ(code, kUnzipDisk);
  if (GetParam().call == FileCall::kOpen) {
    EXPECT_NE(printed.find("error:  cannot create " + dcl.extract_dir +
                           "/a.txt\n        No space left on device\n"),
              std::string::npos)
        << printed;
  } else {
    EXPECT_NE(printed.find("error:  write error (disk full?) for a.txt\n"), std::string::npos)
        << printed;
  }
  if (GetParam().existing) {
    EXPECT_EQ(NamesIn(dcl.extract_dir), std::vector<std::string>{"a.txt"});
    EXPECT_EQ(ReadFile(dir.Path("out/a.txt")), "old");
  } else {
    EXPECT_TRUE(NamesIn(dcl.extract_dir).empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Faults, UnzipDiskFull,
                         ::testing::Values(Case{FileCall::kWrite, ENOSPC, false},
                                           Case{FileCall::kWrite, EIO, true},
                                           Case{FileCall::kRename, ENOSPC, true},
                                           Case{FileCall::kOpen, ENOSPC, false}),
                         [](const auto& info) {
                           return pelmora::testing::FaultName(info.param.call, info.param.error) +
                                  (info.param.existing ? "_replacing" : "");
                         });

// Extracts f.zip into out with every file creation under out/full failing with ENOSPC; the code,
// and what was printed into `printed`.
int ExtractWithFullFolder(ScratchFolder& dir, std::string& printed,
                          const ExtractLimits& limits = {}) {
  DecompressionControl dcl;
  dcl.zip_file_name = dir.Path("f.zip");
  dcl.extract_dir = dir.Path("out");
  dcl.honor_directories = 1;
  dcl.overwrite = 1;
  UnzipCallbacks callbacks = testing::Recording(printed);
  FaultFileApi faults;
  faults.Restrict(dir.Path("out/full"));
  faults.FailFromNext(FileCall::kOpen, ENOSPC);
  return RunUnzip(dcl, callbacks, {}, limits);
}

std::string CannotCreate(ScratchFolder& dir, const std::string& name) {
  return "error:  cannot create " + dir.Path("out/" + name) + "\n        No space left on device\n";
}

TEST(UnzipFullFolder, FilesThatCannotBeCreatedAreReportedInTheirPlace) {
  ScratchFolder dir;
  std::vector<TestEntry> entries;
  std::string expected;
  for (int i = 0; i < 60; ++i) {
    std::string name = (i % 4 == 1 ? "full/" : "ok/") + std::to_string(i) + ".txt";
    entries.push_back({name, std::string(1000 + i * 500, static_cast<char>('a' + i % 26))});
    std::string shown = dir.Path("out/" + name);
    shown.resize(std::max<size_t>(shown.size(), 22), ' ');
    expected += i % 4 == 1 ? CannotCreate(dir, name) : "  inflating: " + shown + "  \n";
  }
  ASSERT_TRUE(BuildArchive(dir.Path("f.zip"), entries));
  std::string printed;
  EXPECT_EQ(ExtractWithFullFolder(dir, printed), kUnzipDisk);
  EXPECT_EQ(printed, expected);
  for (const TestEntry& entry : entries) {
    if (entry.name.starts_with("ok/")) {
      EXPECT_EQ(ReadFile(dir.Path("out/" + entry.name)), entry.data) << entry.name;
    }
  }
  EXPECT_TRUE(NamesIn(dir.Path("out/full")).empty());
}

// An entry that could not be created is not decoded: its bad CRC is never mentioned, and the
// data it would have produced does not count against the expansion limits.
TEST(UnzipFullFolder, AnUncreatableFileIsReportedBeforeItsBadData) {
  ScratchFolder dir;
  std::string printed;
  ASSERT_TRUE(BuildArchive(dir.Path("f.zip"), {{"full/a.txt", std::string(5000, 'a')},
                                               {"b.txt", std::string(5000, 'b')}}));
  std::string bytes = ReadFile(dir.Path("f.zip"));
  size_t central = bytes.find("PK\x01\x02");
  ASSERT_NE(central, std::string::npos);
  bytes[central + 16] ^= 0x55;  // the central and local CRCs: only the data disagrees
  bytes[14] ^= 0x55;
  testing::WriteFile(dir.Path("f.zip"), bytes);
  ExtractLimits limits;
  limits.max_total_bytes = 8000;  // both entries together would go beyond it
  EXPECT_EQ(ExtractWithFullFolder(dir, printed, limits), kUnzipDisk);
  std::string shown = dir.Path("out/b.txt");
  shown.resize(std::max<size_t>(shown.size(), 22), ' ');
  EXPECT_EQ(printed, CannotCreate(dir, "full/a.txt") + "  inflating: " + shown + "  \n");
  EXPECT_FALSE(Exists(dir.Path("out/full/a.txt")));
  EXPECT_EQ(ReadFile(dir.Path("out/b.txt")), std::string(5000, 'b'));
}

}  // namespace
}  // namespace pelmora::archive
