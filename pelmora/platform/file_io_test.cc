#include "pelmora/platform/file_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "pelmora/testing/fault_file_api.h"

namespace pelmora::platform {
namespace {

using pelmora::testing::FaultFileApi;

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe MakePipe() {
  int fds[2];
  EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

TEST(UniqueFd, ClosesWhatItHoldsOnResetAndOnMove) {
  Pipe pipe = MakePipe();
  int raw = pipe.write.get();
  UniqueFd moved = std::move(pipe.write);
  EXPECT_FALSE(pipe.write);
  EXPECT_EQ(moved.get(), raw);
  EXPECT_EQ(moved.reset(), 0);
  EXPECT_EQ(::fcntl(raw, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(moved.reset(), 0);  // empty: nothing to close
}

TEST(FileIo, ReadFullyStopsAtTheEndAndWriteFullyMovesEveryByte) {
  Pipe pipe = MakePipe();
  std::string text(3000, 'a');
  ASSERT_EQ(WriteFully(pipe.write.get(), text), 0);
  pipe.write.reset();
  std::vector<uint8_t> buffer(4000);
  EXPECT_EQ(ReadFully(pipe.read.get(), buffer), 3000);
  EXPECT_EQ(ReadFully(pipe.read.get(), buffer), 0);
}

TEST(FileIo, InjectedFaultsFailTheChosenCallsOnly) {
  Pipe pipe = MakePipe();
  FaultFileApi faults;
  faults.FailCall(FileCall::kWrite, 2, ENOSPC);
  EXPECT_EQ(WriteFully(pipe.write.get(), std::string("one")), 0);
  EXPECT_EQ(WriteFully(pipe.write.get(), std::string("two")), ENOSPC);
  EXPECT_EQ(WriteFully(pipe.write.get(), std::string("six")), 0);
  faults.FailFromNext(FileCall::kRead, EIO);
  std::vector<uint8_t> buffer(6);
  EXPECT_EQ(ReadFully(pipe.read.get(), buffer), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(ReadFully(pipe.read.get(), buffer), -1);
  faults.Clear();
  EXPECT_EQ(ReadFully(pipe.read.get(), buffer), 6);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "onesix");
  EXPECT_EQ(faults.Calls(FileCall::kWrite), 3);
  EXPECT_EQ(Open("/nonexistent/x", O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(FileIo, WithNoFaultsInstalledCallsReachTheSystem) {
  {
    FaultFileApi faults;
    faults.FailFromNext(FileCall::kOpen, EACCES);
  }
  UniqueFd fd(Open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(fd);
}

}  // namespace
}  // namespace pelmora::platform
