#include "pelmora/platform/atomic_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "pelmora/testing/fault_file_api.h"
#include "pelmora/testing/postgres_server.h"

namespace pelmora::platform {
namespace {

using pelmora::testing::FaultFileApi;
using pelmora::testing::NamesIn;
using pelmora::testing::TempFolder;

std::string Contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void Put(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

UniqueFd OpenFolder(const TempFolder& folder) {
  return UniqueFd(::open(folder.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Writes `text` as "a.job" in `folder`: the errno of the first failing step.
int Replace(const TempFolder& folder, const std::string& text, bool replace) {
  AtomicFile file;
  if (int error = file.Begin(OpenFolder(folder), "a.job", 0644); error != 0) return error;
  file.Write(text);
  return file.Commit(replace);
}

TEST(AtomicFile, CreatesANewFileWithNoTemporaryLeft) {
  TempFolder folder;
  EXPECT_EQ(Replace(folder, "new", false), 0);
  EXPECT_EQ(Contents(folder.Path("a.job")), "new");
  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{"a.job"});
}

TEST(AtomicFile, ReplacesOnlyWhenAsked) {
  TempFolder folder;
  Put(folder.Path("a.job"), "old");
  EXPECT_EQ(Replace(folder, "new", false), EEXIST);
  EXPECT_EQ(Contents(folder.Path("a.job")), "old");
  EXPECT_EQ(Replace(folder, "newer", true), 0);
  EXPECT_EQ(Contents(folder.Path("a.job")), "newer");
  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{"a.job"});
}

// Each failing step, with and without O_TMPFILE (the first open refused as a file system without
// it refuses), keeps the old file whole and leaves nothing beside it.
TEST(AtomicFile, AFailingStepKeepsTheOldFileAndLeavesNoTemporary) {
  struct Case {
    FileCall call;
    int error;
  };
  for (bool unnamed : {true, false}) {
    for (Case c : {Case{FileCall::kOpen, EACCES}, Case{FileCall::kWrite, ENOSPC},
                   Case{FileCall::kFsync, EIO}, Case{FileCall::kRename, EIO}}) {
      SCOPED_TRACE(::testing::Message()
                   << "call " << static_cast<int>(c.call) << " unnamed " << unnamed);
      TempFolder folder;
      Put(folder.Path("a.job"), "old");
      FaultFileApi faults;
      if (!unnamed) faults.FailCall(FileCall::kOpen, 1, EOPNOTSUPP);
      faults.FailFrom(c.call, c.call == FileCall::kOpen && !unnamed ? 2 : 1, c.error);
      EXPECT_EQ(Replace(folder, std::string(100000, 'x'), true), c.error);
      EXPECT_EQ(Contents(folder.Path("a.job")), "old");
      EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{"a.job"});
    }
  }
}

// Where the file system has no unnamed files the content has a temporary name from the start:
// a dropped file removes it, a committed one renames it.
TEST(AtomicFile, WritesUnderATemporaryNameWhereTheFileSystemHasNoUnnamedFiles) {
  TempFolder folder;
  FaultFileApi faults;
  for (bool commit : {false, true}) {
    faults.FailNext(FileCall::kOpen, EOPNOTSUPP);
    AtomicFile file;
    ASSERT_EQ(file.Begin(OpenFolder(folder), "a.job", 0644), 0);
    std::vector<std::string> names = NamesIn(folder.Path());
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(IsTemporaryName(names[0])) << names[0];
    file.Write("new");
    if (commit) {
      EXPECT_EQ(file.Commit(false), 0);
    }
  }
  EXPECT_EQ(Contents(folder.Path("a.job")), "new");
  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{"a.job"});
}

TEST(AtomicFile, TemporaryNamesAreExactlyTheOnesItGives) {
  EXPECT_TRUE(IsTemporaryName(".pelmora-0123456789abcdef.part"));
  for (const char* name : {".pelmora-0123456789ABCDEF.part", ".pelmora-0123456789abcde.part",
                           "pelmora-0123456789abcdef.part", ".pelmora-0123456789abcdef.parts",
                           ".pelmora-0123456789abcdeg.part", "a.job"}) {
    EXPECT_FALSE(IsTemporaryName(name)) << name;
  }
}

TEST(AtomicFile, RemovesOnlyTemporariesOlderThanTheTimeGiven) {
  TempFolder folder;
  Put(folder.Path(".pelmora-0123456789abcdef.part"), "left");
  Put(folder.Path("a.job"), "kept");
  std::filesystem::create_directory(folder.Path(".pelmora-1111111111111111.part"));
  UniqueFd fd = OpenFolder(folder);
  RemoveTemporariesBefore(fd.get(), timespec{0, 0});
  EXPECT_EQ(NamesIn(folder.Path()).size(), 3u);
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  now.tv_sec += 1;
  RemoveTemporariesBefore(fd.get(), now);
  EXPECT_EQ(NamesIn(folder.Path()),
            (std::vector<std::string>{".pelmora-1111111111111111.part", "a.job"}));
}

}  // namespace
}  // namespace pelmora::platform
