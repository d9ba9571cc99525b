// Transfers, listings and file information through the library's RCFSO, its server-file cache,
// and a configuration reloaded with SIGHUP, against a real service.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/rcfso.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RCFSO;

class ServiceLibraryClient : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    ASSERT_TRUE(service_.ConnectClient(fso_, "operator", kOperatorPassword));
  }

  std::string Local(const std::string& name) { return service_.folder() + "/" + name; }
  std::string C(const std::string& relative) { return service_.Drive('C') + "/" + relative; }

  ServiceProcess service_;
  RCFSO fso_;
};

TEST_F(ServiceLibraryClient, UploadAndDownloadKeepBytesAndWriteTimes) {
  for (std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{3000}, std::size_t{1 << 20}}) {
    std::string content(size, 'q');
    for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i % 253);
    WriteFile(Local("up.bin"), content);
    ASSERT_TRUE(fso_.Upload(Local("up.bin"), "C:\\stored.bin")) << fso_.ErrDescription();
    EXPECT_EQ(ReadFile(C("stored.bin")), content) << size;
    ASSERT_TRUE(fso_.Download(Local("down.bin"), "C:\\stored.bin")) << fso_.ErrDescription();
    EXPECT_EQ(ReadFile(Local("down.bin")), content) << size;
    struct stat local {
    }, stored{};
    ASSERT_EQ(::stat(Local("up.bin").c_str(), &local), 0);
    ASSERT_EQ(::stat(C("stored.bin").c_str(), &stored), 0);
    EXPECT_EQ(stored.st_mtim.tv_sec, local.st_mtim.tv_sec);
  }
}

TEST_F(ServiceLibraryClient, DownloadOfAMissingFileFailsWith8004) {
  EXPECT_FALSE(fso_.Download(Local("x.bin"), "C:\\missing.bin"));
  EXPECT_EQ(fso_.ErrCode(), 8004);
  EXPECT_EQ(fso_.ErrDescription(), "Cannot open remote file");
}

TEST_F(ServiceLibraryClient, ListingAndFileInformationDescribeTheFiles) {
  ::mkdir(C("data").c_str(), 0755);
  WriteFile(C("data/one.txt"), "1");
  WriteFile(C("data/two.txt"), "22");
  pelmora::admin::RCFileInfoCollection files = fso_.GetFolderFiles("C:\\data");
  ASSERT_EQ(files.Count(), 2) << fso_.ErrDescription();
  EXPECT_EQ(files.Item(1)->FileName(), "one.txt");
  EXPECT_EQ(files.Item(2)->FileSize(), 2);
  EXPECT_EQ(files.Item(2)->FullPathName(), "C:\\data\\two.txt");
  pelmora::admin::RCFileInfo info;
  ASSERT_TRUE(fso_.GetFileInfo("C:\\data\\", info)) << fso_.ErrDescription();
  EXPECT_EQ(info.FileAttribues() & 0x10, 0x10);
  EXPECT_EQ(info.ParentPath(), "C:\\");
  EXPECT_FALSE(fso_.GetFileInfo("C:\\data\\none.txt", info));
  EXPECT_EQ(fso_.ErrCode(), 8118);
  EXPECT_EQ(fso_.GetFolderFiles("C:\\none").Count(), 0);
  EXPECT_EQ(fso_.ErrCode(), 8118);
}

TEST_F(ServiceLibraryClient, SighupReloadKeepsABadFileOutAndServesNewSessionsWithAGoodOne) {
  std::string good = ReadFile(service_.config_path());
  WriteFile(service_.config_path(), good + "[paths]\n");  // a second [paths] table: invalid
  service_.Signal(SIGHUP);
  bool refused = false;
  for (int attempt = 0; attempt < 200 && !refused; ++attempt) {
    RCFSO fresh;  // each login paces the loop; the service logs the refusal meanwhile
    ASSERT_TRUE(service_.ConnectClient(fresh, "operator", kOperatorPassword));
    EXPECT_EQ(fresh.GetPathWithKey("QelProgram"), "C:\\qel\\bin");
    refused = service_.ErrorOutput().find("reload refused") != std::string::npos;
  }
  EXPECT_TRUE(refused);
  std::size_t paths = good.find("[paths]\n");
  ASSERT_NE(paths, std::string::npos);
  good.insert(paths + 8, "VorProgram = 'D:\\vor\\bin'\n");
  WriteFile(service_.config_path(), good);
  service_.Signal(SIGHUP);
  std::string answer;
  for (int attempt = 0; attempt < 200 && answer.empty(); ++attempt) {
    RCFSO fresh;
    ASSERT_TRUE(service_.ConnectClient(fresh, "operator", kOperatorPassword));
    answer = fresh.GetPathWithKey("VorProgram");
  }
  EXPECT_EQ(answer, "D:\\vor\\bin");
  EXPECT_EQ(fso_.GetPathWithKey("VorProgram"), "");  // the old session keeps its configuration
}

}  // namespace
}  // namespace pelmorad::testing
