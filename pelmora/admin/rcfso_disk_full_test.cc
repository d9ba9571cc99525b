// RCFSO's Download onto a disk that fails part way: the whole content is still received (so the
// session stays in step), the partial file is removed and the write's error reported.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "pelmora/admin/internal/local_file.h"
#include "pelmora/admin/internal/rcfso_test_access.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/testing/admin_peer.h"
#include "pelmora/testing/fault_file_api.h"

namespace pelmora::admin {
namespace {

using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::FaultFileApi;
using pelmora::testing::FileCall;
using pelmora::testing::LogCapture;
using pelmora::testing::LogIn;
using pelmora::testing::ReadFileBytes;
using pelmora::testing::ScriptedPeer;

// Scripts one download of `content` after the login.
void ScriptDownload(ScriptedPeer& peer, const Bytes& content) {
  TransferHeader header{static_cast<int32_t>(content.size()), 1, 2, 3};
  ExpectRequest(peer).ReplyWith(Answer(BuildTransferHeader(header))).Receive(kPacketSize);
  peer.Send(content);
}

struct Case {
  int error;
  int32_t code;
  const char* text;
};

class RCFSODiskFull : public ::testing::TestWithParam<Case> {};

TEST_P(RCFSODiskFull, DownloadReportsTheErrorLeavesNoFileAndKeepsTheSession) {
  LogCapture log;
  pelmora::internal::ScratchFolder scratch;
  const std::string full = scratch.Path() + "/full";
  std::filesystem::create_directory(full);
  const std::string local = full + "/big.bin";
  const std::string other = scratch.Path() + "/small.bin";
  const Bytes content(3 * 1024 * 1024, 0x5A);
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  ScriptDownload(peer, content);
  ScriptDownload(peer, Bytes(10, 0x33));
  RCFSO fso;
  ASSERT_TRUE(LogIn(fso, peer));
  FaultFileApi faults;
  faults.Restrict(full);
  faults.FailFrom(FileCall::kWrite, 2, GetParam().error);  // the first block fits, no more
  EXPECT_FALSE(fso.Download(local, "D:\\big.bin"));
  EXPECT_EQ(fso.ErrCode(), GetParam().code);
  EXPECT_EQ(fso.ErrDescription(), GetParam().text);
  EXPECT_FALSE(std::filesystem::exists(local));
  EXPECT_TRUE(std::filesystem::is_empty(full));
  EXPECT_TRUE(
      log.Has(".log", {"I", "RFSO", "Download",
                       internal::RCFSOTestAccess::Handle(fso) + "Cannot write file " + local}));
  EXPECT_TRUE(fso.Download(other, "D:\\small.bin")) << fso.ErrDescription();
  EXPECT_EQ(ReadFileBytes(other), Bytes(10, 0x33));
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  // The first block written, the second failed, nothing tried after it.
  EXPECT_EQ(faults.Calls(FileCall::kWrite), 2);
}

INSTANTIATE_TEST_SUITE_P(
    Errors, RCFSODiskFull,
    ::testing::Values(Case{ENOSPC, 112, "There is not enough space on the disk."},
                      Case{EDQUOT, 112, "There is not enough space on the disk."},
                      Case{EIO, 1, "Incorrect function."}),
    [](const auto& info) { return std::string(strerrorname_np(info.param.error)); });

}  // namespace
}  // namespace pelmora::admin
