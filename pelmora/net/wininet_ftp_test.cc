// The WinINet object's FTP downloads (through OpenURL, active mode) against pyftpdlib.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelmora/net/internal/curl_session.h"
#include "pelmora/net/internal/curl_transfer.h"
#include "pelmora/net/internal/url_cracker.h"
#include "pelmora/net/wininet.h"
#include "pelmora/testing/ftp_server.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

using testing::FtpServer;
using testing::RaisedError;

class WinINetFtp : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ftp_ = new FtpServer("user", "secret");
    ftp_->WriteFile("dir/file.txt", "ftp file contents\n");
    ftp_->WriteFile("big.bin", std::string(700000, 'z'));
  }
  static void TearDownTestSuite() {
    delete ftp_;
    ftp_ = nullptr;
  }
  static FtpServer* ftp_;
};

FtpServer* WinINetFtp::ftp_ = nullptr;

TEST_F(WinINetFtp, OpenUrlDownloadsAFile) {
  WinINet inet;
  EXPECT_EQ(inet.OpenURL(ftp_->Url("user", "secret", "/dir/file.txt")).ToString(),
            "ftp file contents\n")
      << ftp_->Log();
  EXPECT_EQ(inet.protocol(), icFTP);
  auto bytes = inet.OpenURL(ftp_->Url("user", "secret", "/big.bin"), icByteArray).ToBytes();
  EXPECT_EQ(bytes.size(), 700000u);
}

// How many times the server received `command` (as the first word of a command line).
size_t CountCommand(const std::string& log, const std::string& command) {
  std::string marker = "<- " + command;
  size_t count = 0;
  for (size_t at = log.find(marker); at != std::string::npos; at = log.find(marker, at + 1)) {
    char next = at + marker.size() < log.size() ? log[at + marker.size()] : '\n';
    count += next == ' ' || next == '\n' ? 1 : 0;
  }
  return count;
}

TEST_F(WinINetFtp, OpenUrlUsesActiveModeAndPassiveIsAskedFor) {
  size_t ports = CountCommand(ftp_->Log(), "PORT");
  size_t pasvs = CountCommand(ftp_->Log(), "PASV");
  WinINet inet;
  EXPECT_EQ(inet.OpenURL(ftp_->Url("user", "secret", "/dir/file.txt")).ToString(),
            "ftp file contents\n");
  EXPECT_EQ(CountCommand(ftp_->Log(), "PORT"), ports + 1) << ftp_->Log();
  EXPECT_EQ(CountCommand(ftp_->Log(), "PASV"), pasvs);

  net_internal::CurlSession session("agent", icDirect, "");
  net_internal::TransferRequest request;
  request.scheme = net_internal::kSchemeFtp;
  request.host = "127.0.0.1";
  request.port = ftp_->Port();
  request.user = "user";
  request.password = "secret";
  request.document = "/dir/file.txt";
  request.ftp_passive = true;
  net_internal::CurlTransfer transfer(session, request);
  ASSERT_EQ(transfer.Start(), 0);
  std::vector<uint8_t> data;
  size_t got = 0;
  ASSERT_EQ(transfer.Read(data, 100, got), 0);
  EXPECT_EQ(std::string(data.begin(), data.end()), "ftp file contents\n");
  EXPECT_EQ(CountCommand(ftp_->Log(), "PASV"), pasvs + 1) << ftp_->Log();
  EXPECT_EQ(CountCommand(ftp_->Log(), "PORT"), ports + 1);
}

TEST_F(WinINetFtp, RefusedLoginRaises12015) {
  WinINet inet;
  Error e = RaisedError([&] { inet.OpenURL(ftp_->Url("user", "wrong", "/dir/file.txt")); });
  EXPECT_EQ(e.Number(), 12015);
  EXPECT_EQ(e.Description(), "The login request was denied");
  Error anonymous = RaisedError([&] { inet.OpenURL(ftp_->Url("", "", "/dir/file.txt")); });
  EXPECT_EQ(anonymous.Number(), 12015);
}

TEST_F(WinINetFtp, MissingFileRaises12003) {
  WinINet inet;
  Error e = RaisedError([&] { inet.OpenURL(ftp_->Url("user", "secret", "/missing.txt")); });
  EXPECT_EQ(e.Number(), 12003);
  EXPECT_EQ(e.Description(), "The server returned extended information");
}

TEST_F(WinINetFtp, ExecuteAndUploadOnFtpAreRefusedAndHeadersAreTheWrongHandleType) {
  WinINet inet;
  std::string url = ftp_->Url("user", "secret", "/dir/file.txt");
  Error execute = RaisedError([&] { inet.Execute(url); });
  EXPECT_EQ(execute.Number(), 35755);
  EXPECT_EQ(execute.Description(), "Protocal has not implemented yet!");
  Error upload = RaisedError([&] { inet.UploadFile("/dev/null", 0, 0, url); });
  EXPECT_EQ(upload.Description(), "Protocal has not implemented yet!");
  inet.OpenURL(url);
  EXPECT_EQ(RaisedError([&] { inet.GetHeader(); }).Number(), 12018);
}

}  // namespace
}  // namespace pelmora
