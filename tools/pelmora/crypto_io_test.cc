// Writing a new key file on a failing disk: the tool's writes go through the platform's file
// calls, so a disk that fills up or fails is reported with its cause and leaves no partial key.
#include "tools/pelmora/crypto_io.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "pelmora/testing/fault_file_api.h"
#include "pelmora/testing/scratch_folder.h"

namespace pelmora_tool {
namespace {

using pelmora::testing::FaultFileApi;
using pelmora::testing::FileCall;

TEST(WriteNewFile, AFailingWriteNamesItsCauseAndLeavesNoPartialKey) {
  for (int error : {ENOSPC, EIO}) {
    SCOPED_TRACE(std::strerror(error));
    pelmora::testing::ScratchFolder folder;
    std::string path = folder.Path("key.pem");
    FaultFileApi faults;
    faults.Restrict(folder.Path());
    faults.FailFromNext(FileCall::kWrite, error);
    try {
      WriteNewFile(path, Bytes(4096, 'k'), 0600);
      ADD_FAILURE() << "no error raised";
    } catch (const CommandError& raised) {
      EXPECT_EQ(std::string(raised.what()), "cannot write " + path + ": " + std::strerror(error));
    }
    EXPECT_TRUE(pelmora::testing::NamesIn(folder.Path()).empty());
  }
}

TEST(WriteNewFile, WritesTheKeyWithTheGivenModeAndNeverOverwrites) {
  pelmora::testing::ScratchFolder folder;
  std::string path = folder.Path("key.pem");
  WriteNewFile(path, Bytes{'a', 'b'}, 0600);
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_size, 2);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_THROW(WriteNewFile(path, Bytes{'c'}, 0600), CommandError);
  EXPECT_EQ(ReadSource(path), (Bytes{'a', 'b'}));
}

}  // namespace
}  // namespace pelmora_tool
