// Hostile input: names that try to leave the drives, links out of them, requests before login,
// wrong passwords, malformed frames, silent clients, and clients or services killed mid-transfer.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire_replies.h"
#include "tests/service/raw_client.h"
#include "tests/service/service_process.h"

namespace pelmorad::testing {
namespace {

using pelmora::admin::RCFSO;
using pelmora::admin::RequestCode;

// The names in folder `path`.
std::vector<std::string> Names(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* dir = ::opendir(path.c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(dir);
  }
  return names;
}

class ServiceHostile : public ::testing::Test {
 protected:
  explicit ServiceHostile(std::string extra = "") : service_(std::move(extra)) {}

  void SetUp() override {
    ASSERT_TRUE(service_.Start());
    outside_ = service_.folder() + "/outside.txt";
    WriteFile(outside_, "secret");
  }

  bool Login(RawClient& client) {
    if (!client.Connect(service_.port())) return false;
    auto reply = client.Login("operator", kOperatorPassword);
    return reply && reply->success;
  }

  // Sends `code` with `path` and returns the result reply's code (-1 when none came).
  int32_t ResultOf(RawClient& client, RequestCode code, std::string_view path) {
    if (!client.RequestPath(code, path)) return -1;
    auto reply = client.ReadResult();
    if (!reply) return -1;
    return reply->success ? 0 : reply->code;
  }

  std::string C(const std::string& relative) { return service_.Drive('C') + "/" + relative; }

  // Announces a 150 000-byte upload to `path` and sends its first tenth only.
  bool StartUpload(RawClient& client, std::string_view path) {
    pelmora::admin::TransferHeader header;
    header.size = 150000;
    if (!client.RequestPath(RequestCode::kUpload, path) ||
        !client.SendFramed(pelmora::admin::BuildTransferHeader(header))) {
      return false;
    }
    auto go = client.ReadFramed();
    return go && pelmora::admin::IsGoReply(*go) && client.Send(std::vector<uint8_t>(15000, 0x55));
  }

  ServiceProcess service_;
  std::string outside_;
};

struct Traversal {
  const char* path;
  int32_t code;
};

TEST_F(ServiceHostile, NamesThatTryToLeaveTheDriveAreRefused) {
  ASSERT_EQ(::symlink("/etc", C("etc-link").c_str()), 0);
  ASSERT_EQ(::symlink(outside_.c_str(), C("abs-link").c_str()), 0);
  ASSERT_EQ(::symlink("../outside.txt", C("rel-link").c_str()), 0);
  ASSERT_EQ(::symlink("/proc/self/root/etc/passwd", C("magic-link").c_str()), 0);
  RawClient client;
  ASSERT_TRUE(Login(client));
  for (Traversal t :
       {Traversal{"C:\\..\\..\\etc\\passwd", 5}, Traversal{"C:\\a\\..\\..\\x", 5},
        Traversal{"\\\\server\\share\\x", 123}, Traversal{"C:\\etc-link\\passwd", 5},
        Traversal{"C:\\abs-link", 5}, Traversal{"C:\\rel-link", 5}, Traversal{"C:\\magic-link", 5},
        Traversal{"Z:\\x", 3}, Traversal{"C:\\x:stream", 123}}) {
    EXPECT_EQ(ResultOf(client, RequestCode::kFileExists, t.path), t.code) << t.path;
  }
  std::string long_path = "C:\\" + std::string(2000, 'a');
  EXPECT_EQ(ResultOf(client, RequestCode::kFileExists, long_path), 206);
  auto downloaded = client.Download("C:\\abs-link");
  ASSERT_TRUE(downloaded.has_value());
  EXPECT_EQ(downloaded->first.size, -1);
  EXPECT_EQ(ResultOf(client, RequestCode::kDeleteRemoteFile, "C:\\rel-link\\..\\..\\outside.txt"),
            5);
  EXPECT_EQ(ReadFile(outside_), "secret");
}

TEST_F(ServiceHostile, EmbeddedNulEndsTheName) {
  WriteFile(C("x.txt"), "x");
  RawClient client;
  ASSERT_TRUE(Login(client));
  std::string path("C:\\x.txt\0..\\..\\outside.txt", 27);
  EXPECT_EQ(ResultOf(client, RequestCode::kDeleteRemoteFile, path), 0);
  EXPECT_FALSE(PathExists(C("x.txt")));
  EXPECT_EQ(ReadFile(outside_), "secret");
}

TEST_F(ServiceHostile, UploadOverALinkReplacesTheLinkNotItsTarget) {
  ASSERT_EQ(::symlink(outside_.c_str(), C("swap.txt").c_str()), 0);
  RawClient client;
  ASSERT_TRUE(Login(client));
  auto stored = client.Upload("C:\\swap.txt", "uploaded", {});
  ASSERT_TRUE(stored && stored->success);
  EXPECT_EQ(ReadFile(outside_), "secret");
  struct stat info {};
  ASSERT_EQ(::lstat(C("swap.txt").c_str(), &info), 0);
  EXPECT_TRUE(S_ISREG(info.st_mode));
  EXPECT_EQ(ReadFile(C("swap.txt")), "uploaded");
}

TEST_F(ServiceHostile, RequestsBeforeLoginAreRefusedThenTheConnectionCloses) {
  RawClient client;
  ASSERT_TRUE(client.Connect(service_.port()));
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(client.RequestPath(RequestCode::kFileExists, "C:\\"));
    auto reply = client.ReadResult();
    ASSERT_TRUE(reply.has_value());
    EXPECT_FALSE(reply->success);
    EXPECT_EQ(reply->code, 5);
    EXPECT_EQ(reply->message, "Access is denied.");
  }
  EXPECT_TRUE(client.WaitForClose());
}

TEST_F(ServiceHostile, WrongPasswordIsRefusedWith1326) {
  RCFSO fso;
  EXPECT_FALSE(fso.Connect("127.0.0.1", service_.port(), "operator", "wrong", false));
  EXPECT_EQ(fso.ErrCode(), 1326);
  EXPECT_EQ(fso.ErrDescription(), "The user name or password is incorrect.");
  EXPECT_FALSE(fso.FileExists("C:\\"));  // the refused session cannot work
  EXPECT_EQ(fso.ErrCode(), 5);
  RCFSO unknown;
  EXPECT_FALSE(unknown.Connect("127.0.0.1", service_.port(), "nobody", "x", false));
  EXPECT_EQ(unknown.ErrCode(), 1326);
  EXPECT_EQ(service_.ErrorOutput().find("wrong"), std::string::npos);  // never logged
}

TEST_F(ServiceHostile, MalformedFramesEndOnlyTheirOwnSession) {
  RawClient good;
  ASSERT_TRUE(Login(good));
  RawClient bad_header;
  ASSERT_TRUE(bad_header.Connect(service_.port()));
  ASSERT_TRUE(bad_header.Send(std::vector<uint8_t>(1500, 0x41)));
  EXPECT_TRUE(bad_header.WaitForClose());
  RawClient oversize;
  ASSERT_TRUE(Login(oversize));
  ASSERT_TRUE(oversize.SendFramed(pelmora::admin::BuildSizeMessage(100 << 20)));
  EXPECT_TRUE(oversize.WaitForClose());
  RawClient bad_size;
  ASSERT_TRUE(bad_size.Connect(service_.port()));
  std::vector<uint8_t> packet = pelmora::admin::BuildFramedPacket(1, {});
  packet[7] = 0xFF;  // declared size 255 + ... beyond the packet
  packet[8] = 0xFF;
  ASSERT_TRUE(bad_size.Send(packet));
  EXPECT_TRUE(bad_size.WaitForClose());
  EXPECT_EQ(ResultOf(good, RequestCode::kFolderExists, "C:\\"), 0);
}

TEST_F(ServiceHostile, ClientKilledMidUploadLeavesTheOldFile) {
  WriteFile(C("big.bin"), "old");
  RawClient client;
  ASSERT_TRUE(Login(client));
  ASSERT_TRUE(StartUpload(client, "C:\\big.bin"));
  client.Close(true);
  RawClient after;
  ASSERT_TRUE(Login(after));  // the service still serves, and the old file is intact
  EXPECT_EQ(ResultOf(after, RequestCode::kFolderExists, "C:\\"), 0);
  EXPECT_EQ(ReadFile(C("big.bin")), "old");
}

TEST_F(ServiceHostile, ClientKilledMidDownloadLeavesTheServiceServing) {
  WriteFile(C("large.bin"), std::string(4 << 20, 'z'));
  RawClient client;
  ASSERT_TRUE(Login(client));
  ASSERT_TRUE(client.RequestPath(RequestCode::kDownload, "C:\\large.bin"));
  ASSERT_TRUE(client.ReadFramed().has_value());
  ASSERT_TRUE(client.SendFramed(pelmora::admin::BuildGoReply(true)));
  ASSERT_TRUE(client.Read(1000).has_value());
  client.Close(true);
  RawClient after;
  ASSERT_TRUE(Login(after));
  EXPECT_EQ(ResultOf(after, RequestCode::kFileExists, "C:\\large.bin"), 0);
}

TEST_F(ServiceHostile, ServiceKilledMidUploadLeavesNoPartialFile) {
  RawClient client;
  ASSERT_TRUE(Login(client));
  ASSERT_TRUE(StartUpload(client, "C:\\partial.bin"));
  EXPECT_EQ(service_.Stop(SIGKILL), 128 + SIGKILL);
  ASSERT_TRUE(service_.Start());
  EXPECT_TRUE(Names(service_.Drive('C')).empty());
}

TEST_F(ServiceHostile, SigtermEndsTheServiceWithStatusZero) {
  RawClient idle;
  ASSERT_TRUE(Login(idle));
  EXPECT_EQ(service_.Stop(SIGTERM), 0);
  EXPECT_TRUE(idle.WaitForClose());
}

class ServiceLimits : public ServiceHostile {
 protected:
  ServiceLimits()
      : ServiceHostile(
            "[limits]\nidle_seconds = 1\nlogin_failures = 3\nlockout_seconds = 60\n"
            "login_delay_ms = 100\nsessions_per_address = 40\n") {}
};

TEST_F(ServiceLimits, SilentClientIsClosedAfterTheIdleTime) {
  RawClient silent;
  ASSERT_TRUE(silent.Connect(service_.port()));
  auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(silent.WaitForClose(10000));
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(900));
}

TEST_F(ServiceLimits, RepeatedWrongPasswordsDelayTheRealUserButNeverLockHimOut) {
  for (int i = 0; i < 3; ++i) {
    RCFSO fso;
    EXPECT_FALSE(fso.Connect("127.0.0.1", service_.port(), "operator", "wrong", false));
    EXPECT_EQ(fso.ErrCode(), 1326);
  }
  RCFSO right;
  EXPECT_TRUE(right.Connect("127.0.0.1", service_.port(), "operator", kOperatorPassword, false))
      << right.ErrDescription();
  EXPECT_NE(service_.ErrorOutput().find("login delayed 300 ms"), std::string::npos);
}

// The audit lines of `log` that contain `text`.
int CountLines(const std::string& log, const std::string& text) {
  int count = 0;
  for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
    ++count;
  }
  return count;
}

TEST_F(ServiceLimits, ParallelGuessesFromOneAddressWaitForEachOther) {
  constexpr int kGuesses = 8;
  RCFSO first;  // from the first failure on, every guess in flight counts
  EXPECT_FALSE(first.Connect("127.0.0.1", service_.port(), "operator", "wrong", false));
  RawClient guesses[kGuesses];
  for (RawClient& client : guesses) {
    ASSERT_TRUE(client.Connect(service_.port()));
    ASSERT_TRUE(client.SendFramed(pelmora::admin::BuildLoginMessage(
        pelmora::admin::EncodeCredential("operator"), pelmora::admin::EncodeCredential("wrong"))));
  }
  for (RawClient& client : guesses) {
    auto reply = client.ReadResult();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->code, 1326);
  }
  // The ones sent while others were being checked waited.
  EXPECT_GE(CountLines(service_.ErrorOutput(), "login delayed"), kGuesses / 2);
}

TEST_F(ServiceLimits, AFleetLoggingInAtOnceIsNotDelayed) {
  constexpr int kSessions = 8;
  RawClient sessions[kSessions];
  for (RawClient& client : sessions) {
    ASSERT_TRUE(client.Connect(service_.port()));
    ASSERT_TRUE(client.SendFramed(pelmora::admin::BuildLoginMessage(
        pelmora::admin::EncodeCredential("operator"),
        pelmora::admin::EncodeCredential(std::string(kOperatorPassword)))));
  }
  for (RawClient& client : sessions) {
    auto reply = client.ReadResult();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->code, 0);
  }
  EXPECT_EQ(CountLines(service_.ErrorOutput(), "login delayed"), 0);
}

TEST_F(ServiceLimits, AnotherAccountsLoginDoesNotResetTheFailures) {
  for (int i = 0; i < 2; ++i) {
    RCFSO fso;
    EXPECT_FALSE(fso.Connect("127.0.0.1", service_.port(), "operator", "wrong", false));
  }
  RCFSO reader;
  ASSERT_TRUE(reader.Connect("127.0.0.1", service_.port(), "reader", kReaderPassword, false));
  RCFSO again;
  EXPECT_FALSE(again.Connect("127.0.0.1", service_.port(), "operator", "wrong", false));
  EXPECT_EQ(CountLines(service_.ErrorOutput(), "account=\"operator\" code=-1 path=\"login delayed"),
            2);
}


}  // namespace
}  // namespace pelmorad::testing

namespace pelmorad::testing {
namespace {

class ServiceSessionLimit : public ServiceHostile {
 protected:
  ServiceSessionLimit() : ServiceHostile("[limits]\nsessions_per_address = 3\n") {}
};

TEST_F(ServiceSessionLimit, ConnectionsBeyondThePerAddressLimitAreClosed) {
  RawClient first, second, third, fourth;
  ASSERT_TRUE(Login(first));
  ASSERT_TRUE(Login(second));
  ASSERT_TRUE(Login(third));
  ASSERT_TRUE(fourth.Connect(service_.port()));
  EXPECT_TRUE(fourth.WaitForClose());
  EXPECT_EQ(ResultOf(first, RequestCode::kFolderExists, "C:\\"), 0);
  first.Close();
  EXPECT_EQ(ResultOf(third, RequestCode::kFolderExists, "C:\\"), 0);
}

}  // namespace
}  // namespace pelmorad::testing
