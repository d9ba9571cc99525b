// The file mode requests against the real service: the bits read and set on a regular file, a
// link never followed, folders and missing files refused, the read-only account refused for set,
// and setuid, setgid and sticky bits refused whoever sends them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "pelmora/admin/mode_wire.h"
#include "pelmora/admin/rcfso.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RCFSO;
namespace fs = std::filesystem;

mode_t ModeOf(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

class FileModes : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    ASSERT_TRUE(fso_.Connect("127.0.0.1", service_.port(), "operator", kOperatorPassword, false));
    fso_.set_timeout(20000);
    file_ = service_.Drive('C') + "/tool.sh";
    std::ofstream(file_) << "#!/bin/sh\n";
    ::chmod(file_.c_str(), 0640);
  }

  ServiceProcess service_;
  RCFSO fso_;
  std::string file_;
};

TEST_F(FileModes, ReadsAndSetsThePermissionBitsOfAFile) {
  EXPECT_GE(fso_.ExtendedCommandVersion(), pelmora::admin::kModeVersion);
  int32_t mode = -1;
  ASSERT_TRUE(fso_.GetFileMode("C:\\tool.sh", mode)) << fso_.ErrDescription();
  EXPECT_EQ(mode, 0640);
  ASSERT_TRUE(fso_.SetFileMode("C:\\tool.sh", 0755)) << fso_.ErrDescription();
  EXPECT_EQ(ModeOf(file_), 0755u);
  ASSERT_TRUE(fso_.GetFileMode("C:\\tool.sh", mode));
  EXPECT_EQ(mode, 0755);
}

TEST_F(FileModes, RefusesLinksFoldersAndMissingFiles) {
  fs::create_symlink("tool.sh", service_.Drive('C') + "/link.sh");
  fs::create_directory(service_.Drive('C') + "/folder");
  struct Case {
    const char* path;
    int32_t error;
  } cases[] = {{"C:\\link.sh", 5}, {"C:\\folder", 87}, {"C:\\none.sh", 2}, {"C:\\no\\x", 3}};
  for (const Case& c : cases) {
    int32_t mode = -1;
    EXPECT_FALSE(fso_.GetFileMode(c.path, mode)) << c.path;
    EXPECT_EQ(fso_.ErrCode(), c.error) << c.path;
    EXPECT_FALSE(fso_.SetFileMode(c.path, 0777)) << c.path;
    EXPECT_EQ(fso_.ErrCode(), c.error) << c.path;
  }
  EXPECT_EQ(ModeOf(file_), 0640u) << "the link's target is untouched";
}

TEST_F(FileModes, SpecialBitsAndReadOnlyAccountsAreRefused) {
  EXPECT_FALSE(fso_.SetFileMode("C:\\tool.sh", 04755));
  EXPECT_EQ(fso_.ErrCode(), 87);
  // Sent anyway, as a client of its own might: the service refuses it as malformed.
  RawClient raw;
  ASSERT_TRUE(raw.Connect(service_.port()));
  ASSERT_TRUE(raw.Login("operator", kOperatorPassword));
  for (int32_t bits : {04755, 02755, 01777}) {
    ASSERT_TRUE(raw.Request(static_cast<pelmora::admin::RequestCode>(pelmora::admin::kModeSetCode),
                            pelmora::admin::ModeArguments("C:\\tool.sh", bits)));
    auto reply = raw.ReadResult();
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->success);
    EXPECT_EQ(reply->code, 87);
  }
  EXPECT_EQ(ModeOf(file_), 0640u);

  RCFSO reader;
  ASSERT_TRUE(reader.Connect("127.0.0.1", service_.port(), "reader", kReaderPassword, false));
  int32_t mode = -1;
  EXPECT_TRUE(reader.GetFileMode("C:\\tool.sh", mode)) << reader.ErrCode();
  EXPECT_FALSE(reader.SetFileMode("C:\\tool.sh", 0777));
  EXPECT_EQ(reader.ErrCode(), 5);
  EXPECT_EQ(ModeOf(file_), 0640u);
}

}  // namespace
}  // namespace pelmorad::testing
