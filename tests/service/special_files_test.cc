// FIFOs and device files inside a drive: every request that would read or write one is refused
// with 5 at once instead of blocking a worker (a FIFO's open waits for its other end) or copying
// a device without end.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <string>

#include "pelmora/admin/wire_replies.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::EncodeUnicodeArgument;
using pelmora::admin::RequestCode;

constexpr int kReplyMilliseconds = 3000;

class ServiceSpecialFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    ASSERT_EQ(::mkfifo(C("pipe").c_str(), 0666), 0);
    ASSERT_EQ(::mknod(C("null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
  }

  bool Login(RawClient& client) {
    if (!client.Connect(service_.port())) return false;
    auto reply = client.Login("operator", kOperatorPassword);
    return reply && reply->success;
  }

  std::string C(const std::string& relative) { return service_.Drive('C') + "/" + relative; }

  ServiceProcess service_;
};

struct ResultCase {
  RequestCode code;
  std::vector<const char*> args;
};

TEST_F(ServiceSpecialFiles, RequestsWithAResultReplyRefuseFifosAndDevicesAtOnce) {
  const ResultCase cases[] = {
      {RequestCode::kCopyRemoteFile, {"C:\\pipe", "C:\\copy", "FALSE"}},
      {RequestCode::kCopyRemoteFile, {"C:\\null", "C:\\copy", "FALSE"}},
      {RequestCode::kCreateRemoteFile, {"C:\\pipe", "TRUE", "FALSE"}},
      {RequestCode::kCreateRemoteFile, {"C:\\null", "TRUE", "TRUE"}},
  };
  for (const ResultCase& test : cases) {
    SCOPED_TRACE(test.args[0]);
    RawClient client;
    ASSERT_TRUE(Login(client));
    std::vector<Bytes> args;
    for (const char* arg : test.args) args.push_back(EncodeUnicodeArgument(arg));
    ASSERT_TRUE(client.Request(test.code, args));
    std::optional<Bytes> data = client.ReadFramed(kReplyMilliseconds);
    ASSERT_TRUE(data) << "no answer: a worker is blocked";
    auto reply = pelmora::admin::ParseResultReply(*data);
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->success);
    EXPECT_EQ(reply->code, 5);
  }
  EXPECT_FALSE(PathExists(C("copy")));
}

TEST_F(ServiceSpecialFiles, TransfersAndVersionsRefuseFifosAndDevicesAtOnce) {
  for (const char* path : {"C:\\pipe", "C:\\null"}) {
    SCOPED_TRACE(path);
    RawClient client;
    ASSERT_TRUE(Login(client));
    ASSERT_TRUE(client.RequestPath(RequestCode::kDownload, path));
    std::optional<Bytes> header = client.ReadFramed(kReplyMilliseconds);
    ASSERT_TRUE(header) << "no answer: a worker is blocked";
    EXPECT_EQ(pelmora::admin::ParseTransferHeader(*header)->size, -1);

    ASSERT_TRUE(client.RequestPath(RequestCode::kGetFileVersion, path));
    std::optional<Bytes> version = client.ReadFramed(kReplyMilliseconds);
    ASSERT_TRUE(version) << "no answer: a worker is blocked";

    bool refused = false;
    client.Upload(path, "content", pelmora::admin::TransferHeader{}, &refused);
    EXPECT_TRUE(refused);
  }
  struct stat info {};
  ASSERT_EQ(::lstat(C("pipe").c_str(), &info), 0);
  EXPECT_TRUE(S_ISFIFO(info.st_mode));  // the upload did not replace it
  EXPECT_NE(service_.ErrorOutput().find(R"(code=18 path="C:\\pipe" result=5)"), std::string::npos)
      << service_.ErrorOutput();
}

TEST_F(ServiceSpecialFiles, FolderCopiesLeaveSpecialFilesOut) {
  ::mkdir(C("tree").c_str(), 0755);
  ASSERT_EQ(::mkfifo(C("tree/pipe").c_str(), 0666), 0);
  WriteFile(C("tree/plain.txt"), "plain");
  RawClient client;
  ASSERT_TRUE(Login(client));
  ASSERT_TRUE(client.Request(RequestCode::kCopyRemoteFolder,
                             {EncodeUnicodeArgument("C:\\tree"), EncodeUnicodeArgument("C:\\copy"),
                              EncodeUnicodeArgument("FALSE")}));
  std::optional<Bytes> data = client.ReadFramed(kReplyMilliseconds);
  ASSERT_TRUE(data);
  EXPECT_TRUE(pelmora::admin::ParseResultReply(*data)->success);
  EXPECT_EQ(ReadFile(C("copy/plain.txt")), "plain");
  EXPECT_FALSE(PathExists(C("copy/pipe")));
}

}  // namespace
}  // namespace pelmorad::testing
