// The download from an offset against the real service: a download cut off on the way (by a
// relay that closes the connection after a given count of the service's bytes) is completed
// with the rest only and gives the source's bytes; a changed file is refused by the client with
// the session still in step; the service's rights and its answers to malformed offsets.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/resume_wire.h"
#include "tests/service/cut_relay.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RCFileInfo;
using pelmora::admin::RCFSO;

// Bytes that differ from piece to piece, so a misplaced piece shows.
std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 1500) & 0xFF);
  return bytes;
}

class ResumeDownload : public ::testing::Test {
 protected:
  static constexpr std::size_t kSize = 400000;

  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    source_ = Pattern(kSize);
    WriteFile(service_.Drive('C') + "/big.bin", source_);
    ASSERT_TRUE(Connect(fso_, service_.port()));
    ASSERT_TRUE(fso_.GetFileInfo("C:\\big.bin", info_)) << fso_.ErrDescription();
    local_ = service_.folder() + "/big.part";
  }
  bool Connect(RCFSO& fso, int port, const char* user = "operator",
               std::string_view password = kOperatorPassword) {
    fso.set_timeout(20000);
    return fso.Connect("127.0.0.1", port, user, password, false);
  }

  ServiceProcess service_;
  RCFSO fso_;
  RCFileInfo info_;
  std::string source_;
  std::string local_;
};

TEST_F(ResumeDownload, AnInterruptedDownloadCompletesWithTheRestOnly) {
  {
    CutRelay relay(service_.port(), 150000);
    RCFSO cut;
    ASSERT_TRUE(Connect(cut, relay.port()));
    EXPECT_FALSE(cut.Download(local_, "C:\\big.bin"));
    EXPECT_NE(cut.ErrCode(), 0);
  }
  std::string kept = ReadFile(local_);
  ASSERT_GT(kept.size(), 0u);
  ASSERT_LT(kept.size(), kSize);
  EXPECT_EQ(kept, source_.substr(0, kept.size()));
  EXPECT_EQ(fso_.ExtendedCommandVersion(), pelmora::admin::kResumeVersion);
  ASSERT_TRUE(fso_.ResumeDownload(local_, "C:\\big.bin", info_.FileSize(), info_.LastWriteTime()))
      << fso_.ErrCode() << " " << fso_.ErrDescription();
  EXPECT_EQ(ReadFile(local_), source_);
  // The next reply comes after the download's audit line is written.
  EXPECT_TRUE(fso_.FileExists("C:\\big.bin"));
  EXPECT_NE(service_.ErrorOutput().find("code=44 path=\"C:\\\\big.bin from " +
                                        std::to_string(kept.size()) + "\" result=0"),
            std::string::npos)
      << service_.ErrorOutput();
}

TEST_F(ResumeDownload, OnlyTheBytesAfterTheLocalFileAreSent) {
  // A first part the source does not hold: it stays as it is, so nothing before the offset came.
  WriteFile(local_, std::string(1000, 'L'));
  ASSERT_TRUE(fso_.ResumeDownload(local_, "C:\\big.bin", info_.FileSize(), info_.LastWriteTime()))
      << fso_.ErrDescription();
  EXPECT_EQ(ReadFile(local_), std::string(1000, 'L') + source_.substr(1000));
}

TEST_F(ResumeDownload, AChangedFileIsRefusedAndTheSessionStaysInStep) {
  struct Case {
    const char* what;
    int32_t size;
    pelmora::Date last_write;
  } cases[] = {
      {"another size", static_cast<int32_t>(kSize + 1), info_.LastWriteTime()},
      {"another write time", static_cast<int32_t>(kSize),
       pelmora::Date::FromUnixTime(info_.LastWriteTime().ToUnixTime() - 60)},
  };
  for (const Case& c : cases) {
    WriteFile(local_, "first");
    EXPECT_FALSE(fso_.ResumeDownload(local_, "C:\\big.bin", c.size, c.last_write)) << c.what;
    EXPECT_EQ(fso_.ErrCode(), 8004) << c.what;
    EXPECT_EQ(fso_.ErrDescription(), pelmora::admin::kRemoteFileChanged) << c.what;
    EXPECT_EQ(ReadFile(local_), "first") << c.what;
    EXPECT_TRUE(fso_.FileExists("C:\\big.bin")) << c.what << ": the next request is answered";
  }
  // A local file as long as the remote one has nothing left to ask for.
  WriteFile(local_, source_);
  EXPECT_FALSE(fso_.ResumeDownload(local_, "C:\\big.bin", info_.FileSize(), info_.LastWriteTime()));
  EXPECT_EQ(fso_.ErrDescription(), pelmora::admin::kRemoteFileChanged);
  EXPECT_TRUE(fso_.FileExists("C:\\big.bin"));
}

TEST_F(ResumeDownload, TheRightsOfADownloadApply) {
  ::mkdir((service_.Drive('C') + "/folder").c_str(), 0755);
  WriteFile(service_.Drive('D') + "/d.bin", "0123456789");
  struct Case {
    const char* user;
    std::string_view password;
    const char* path;
    bool allowed;
  } cases[] = {
      {"reader", kReaderPassword, "C:\\big.bin", true},   // reading needs no write right
      {"donly", kOperatorPassword, "C:\\big.bin", false},  // a drive the account may not use
      {"operator", kOperatorPassword, "C:\\none.bin", false},
      {"operator", kOperatorPassword, "C:\\folder", false},
      {"operator", kOperatorPassword, "Q:\\x.bin", false},
  };
  for (const Case& c : cases) {
    RCFSO fso;
    ASSERT_TRUE(Connect(fso, service_.port(), c.user, c.password)) << c.user;
    WriteFile(local_, "0123");
    bool done = fso.ResumeDownload(local_, c.path, static_cast<int32_t>(kSize), info_.LastWriteTime());
    EXPECT_EQ(done, c.allowed) << c.user << " " << c.path << ": " << fso.ErrDescription();
    if (!c.allowed) EXPECT_EQ(fso.ErrDescription(), "Cannot open remote file") << c.path;
    if (!c.allowed) EXPECT_EQ(ReadFile(local_), "0123") << c.path;
  }
}

TEST_F(ResumeDownload, MalformedOffsetsAndOffsetsPastTheEnd) {
  RawClient raw;
  ASSERT_TRUE(raw.Connect(service_.port()));
  ASSERT_TRUE(raw.Login("operator", kOperatorPassword));
  auto code = static_cast<pelmora::admin::RequestCode>(pelmora::admin::kResumeCode);
  // A negative offset is malformed: refused as a download is, with size -1.
  ASSERT_TRUE(raw.Request(code, {pelmora::admin::EncodeUnicodeArgument("C:\\big.bin"),
                                 {0xFF, 0xFF, 0xFF, 0xFF}}));
  std::optional<Bytes> header = raw.ReadFramed();
  ASSERT_TRUE(header);
  EXPECT_EQ(pelmora::admin::ParseTransferHeader(*header)->size, -1);
  // Past the end: the whole file's size, then nothing after the go reply.
  ASSERT_TRUE(raw.Request(code, pelmora::admin::ResumeArguments("C:\\big.bin", kSize + 10)));
  header = raw.ReadFramed();
  ASSERT_TRUE(header);
  EXPECT_EQ(pelmora::admin::ParseTransferHeader(*header)->size, static_cast<int32_t>(kSize));
  ASSERT_TRUE(raw.SendFramed(pelmora::admin::BuildGoReply(true)));
  ASSERT_TRUE(raw.RequestPath(pelmora::admin::RequestCode::kFileExists, "C:\\big.bin"));
  std::optional<pelmora::admin::ResultReply> exists = raw.ReadResult();
  ASSERT_TRUE(exists) << "the next reply follows at once: no content was sent";
  EXPECT_TRUE(exists->success);
}

}  // namespace
}  // namespace pelmorad::testing
