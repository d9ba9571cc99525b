// Extraction onto a disk that fails: the write, the rename over an existing file and the create
// each give the disk code 50 with the engine's message, and no partial file is left behind.
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
using testing::ReadFile;
using testing::ScratchFolder;
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
  UnzipCallbacks callbacks;
  callbacks.print = [&printed](std::string_view text) {
    printed += text;
    return 0;
  };
  callbacks.replace = [](std::string&) { return kReplaceYes; };
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

}  // namespace
}  // namespace pelmora::archive
