// The WinINet object's FTP downloads (through OpenURL, passive mode) against pyftpdlib.
#include <gtest/gtest.h>

#include <string>

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
