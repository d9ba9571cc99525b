// Uploads onto a full disk: a small file system mounted over a folder of drive C, in a mount
// namespace of the test's own, so the real service meets a real ENOSPC.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "pelmora/admin/wire_replies.h"
#include "pelmora/testing/fault_file_api.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::TransferHeader;

class ServiceDiskFull : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a small file system needs root";
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0) << std::strerror(errno);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0)
        << std::strerror(errno);
    full_ = service_.Drive('C') + "/full";
    struct stat drive {};
    ASSERT_EQ(::stat(service_.Drive('C').c_str(), &drive), 0);
    ASSERT_EQ(::mkdir(full_.c_str(), 0755), 0);
    // 256 KiB with the drive folder's owner and permissions.
    char options[96];
    std::snprintf(options, sizeof(options), "size=256k,mode=%o,uid=%u,gid=%u",
                  static_cast<unsigned>(drive.st_mode & 07777), static_cast<unsigned>(drive.st_uid),
                  static_cast<unsigned>(drive.st_gid));
    ASSERT_EQ(::mount("tmpfs", full_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options), 0)
        << std::strerror(errno);
    mounted_ = true;
    ASSERT_TRUE(service_.Start());
    ASSERT_TRUE(client_.Connect(service_.port()));
    auto login = client_.Login("operator", kOperatorPassword);
    ASSERT_TRUE(login && login->success);
  }
  void TearDown() override {
    if (mounted_) ::umount2(full_.c_str(), MNT_DETACH);
  }

  ServiceProcess service_;
  RawClient client_;
  std::string full_;
  bool mounted_ = false;
};

TEST_F(ServiceDiskFull, UploadIsRefusedWithDiskFullAndLeavesNoPartialFile) {
  WriteFile(full_ + "/kept.txt", "old");
  const std::string big(1024 * 1024, 'x');
  for (const char* remote : {"C:\\full\\new.bin", "C:\\full\\kept.txt"}) {
    SCOPED_TRACE(remote);
    auto stored = client_.Upload(remote, big, TransferHeader{});
    ASSERT_TRUE(stored.has_value());
    EXPECT_FALSE(stored->success);
    EXPECT_EQ(stored->code, 112);
    EXPECT_EQ(stored->message, "There is not enough space on the disk.");
    EXPECT_EQ(pelmora::testing::NamesIn(full_), std::vector<std::string>{"kept.txt"});
    EXPECT_EQ(ReadFile(full_ + "/kept.txt"), "old");
  }
  // The space the refused uploads took is free again and the session goes on.
  auto stored =
      client_.Upload("C:\\full\\small.txt", std::string(100 * 1024, 's'), TransferHeader{});
  ASSERT_TRUE(stored.has_value());
  EXPECT_TRUE(stored->success) << stored->message;
  EXPECT_EQ(ReadFile(full_ + "/small.txt"), std::string(100 * 1024, 's'));
}

}  // namespace
}  // namespace pelmorad::testing
