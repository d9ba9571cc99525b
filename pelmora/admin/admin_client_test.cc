// AdminClient tests: login with the built-in account, the access code, time-out bookkeeping,
// error prefixes, the server clock and the application root folder.
#include "pelmora/admin/admin_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/internal/built_in_secrets.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/log.h"
#include "pelmora/testing/admin_peer.h"

namespace pelmora::admin {
namespace {

using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::OutputData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SizeData;
using pelmora::testing::StatusData;
using pelmora::testing::TextData;

// Notes the session time-out whenever output arrives.
class TimeoutProbe : public RCFSOEvents {
 public:
  explicit TimeoutProbe(RCFSO& fso) : fso_(fso) {}
  void CommandOutput(std::string&) override { seen.push_back(fso_.timeout()); }
  std::vector<int32_t> seen;

 private:
  RCFSO& fso_;
};

// An AdminClient logged in to a scripted peer whose script continues after the login.
class ConnectedClient {
 public:
  ConnectedClient() { ExpectLogin(peer, true); }
  bool Start() {
    peer.Start();
    client.SetServicePort(peer.Port());
    return client.Connect("127.0.0.1");
  }
  ScriptedPeer peer;
  AdminClient client;
};

TEST(AdminClient, StartsWithItsOwnSettings) {
  AdminClient client;
  EXPECT_EQ(LogLevel(), 1);
  EXPECT_THAT(client.FileSystemClient().LogPath(), ::testing::EndsWith("/../Log/"));
  EXPECT_EQ(client.FileSystemClient().timeout(), 10000);
  EXPECT_EQ(client.ServicePort(), 8002);
  EXPECT_EQ(client.ErrNumber(), 0);
  EXPECT_EQ(client.ErrDescription(), "");
  EXPECT_EQ(client.Product(), "");
}

TEST(AdminClient, LogsInWithTheBuiltInAccountInEncodedForm) {
  ConnectedClient c;
  ASSERT_TRUE(c.Start()) << c.client.ErrDescription();
  ASSERT_TRUE(c.peer.Finish()) << c.peer.Failure();
  const std::string login = EncodeCredential(internal::BuiltInAccount()) + "\n" +
                            EncodeCredential(internal::BuiltInPassword());
  const Bytes packet = c.peer.Received(0);
  EXPECT_EQ(std::string(packet.begin() + 11, packet.begin() + 11 + login.size()), login);
}

TEST(AdminClient, ErrorTextsCarryTheRoutineAndTheProduct) {
  uint16_t port = 0;
  {
    ScriptedPeer closed;
    port = closed.Port();
  }
  AdminClient client;
  client.SetServicePort(port);
  EXPECT_FALSE(client.Connect("127.0.0.1"));
  EXPECT_EQ(client.ErrNumber(), 10061);
  EXPECT_EQ(client.ErrDescription(), "[Connect] " + DescribeError(10061));
  client.SetProduct("vorin");
  EXPECT_TRUE(client.RemoteSystemTime().IsEmpty());
  EXPECT_EQ(client.ErrNumber(), 8117);
  EXPECT_EQ(client.ErrDescription(), "[RemoteSystemTime] vorin - Connection has not established");
}

TEST(AdminClient, RefusedLoginReportsTheServersMessage) {
  ScriptedPeer peer;
  peer.Receive(1500).ReplyWith(Answer(pelmora::testing::ResultData(false, 1326, "Logon failure")));
  peer.Start();
  AdminClient client;
  client.SetServicePort(peer.Port());
  EXPECT_FALSE(client.Connect("127.0.0.1"));
  EXPECT_EQ(client.ErrNumber(), 1326);
  EXPECT_EQ(client.ErrDescription(), "[Connect] Logon failure");
}

TEST(AdminClient, WrongAccessCodeChangesNothingAndSendsNothing) {
  ConnectedClient c;
  ExpectRequest(c.peer).Stall();
  ASSERT_TRUE(c.Start());
  c.client.FileSystemClient().set_timeout(50);
  c.client.RemoteSystemTime();  // the peer never answers: an error is recorded
  const int32_t previous = c.client.ErrNumber();
  ASSERT_EQ(previous, 10060);
  std::string out = "before";
  int32_t exit_code = 42;
  const std::string wrong = internal::BuiltInAccessCode() + "x";
  c.client.FileSystemClient().set_timeout(300);
  EXPECT_FALSE(c.client.RemoteCommandCall("dir", 1000, wrong, out, exit_code));
  EXPECT_EQ(c.client.ErrNumber(), previous);
  EXPECT_EQ(out, "before");
  EXPECT_EQ(exit_code, 42);
  EXPECT_EQ(c.client.FileSystemClient().timeout(), 300);
  c.client.FileSystemClient().Disconnect();
  ASSERT_TRUE(c.peer.Finish()) << c.peer.Failure();
  EXPECT_EQ(c.peer.ReceivedChunks().size(), 1u + 2u);  // the login and the clock request only
}

TEST(AdminClient, RemoteCommandCallCollectsOutputUnderTheCommandsTimeOut) {
  ConnectedClient c;
  ExpectRequest(c.peer).ReplyWith(
      Answer({OutputData("line 1\r\n"), OutputData("line 2\r\n"), StatusData(9000)}));
  ASSERT_TRUE(c.Start());
  TimeoutProbe probe(c.client.FileSystemClient());
  c.client.FileSystemClient().AddEventSink(&probe);
  c.client.FileSystemClient().set_timeout(1234);
  std::string out;
  int32_t exit_code = 7;
  EXPECT_TRUE(c.client.RemoteCommandCall("type a.txt", 5000, internal::BuiltInAccessCode(), out,
                                         exit_code));
  EXPECT_EQ(out, "line 1\r\nline 2\r\n");
  EXPECT_EQ(exit_code, 7);
  EXPECT_THAT(probe.seen, ::testing::ElementsAre(6000, 6000));
  EXPECT_EQ(c.client.FileSystemClient().timeout(), 1234);
  EXPECT_EQ(c.client.ErrNumber(), 0);
  c.client.FileSystemClient().RemoveEventSink(&probe);
}

TEST(AdminClient, FailedCommandRecordsTheErrorAndRestoresTheTimeOut) {
  ConnectedClient c;
  ExpectRequest(c.peer).ReplyWith(Answer({OutputData("partial"), StatusData(9002)}));
  ASSERT_TRUE(c.Start());
  c.client.SetProduct("qel");
  c.client.FileSystemClient().set_timeout(2500);
  std::string out = "untouched";
  int32_t exit_code = 0;
  EXPECT_FALSE(c.client.RemoteCommandCall("x", 10, internal::BuiltInAccessCode(), out, exit_code));
  EXPECT_EQ(out, "untouched");
  EXPECT_EQ(c.client.ErrNumber(), 9002);
  EXPECT_EQ(c.client.ErrDescription(), "[RemoteCommandCall] qel - Process terminated abnormally");
  EXPECT_EQ(c.client.FileSystemClient().timeout(), 2500);
}

TEST(AdminClient, TimeOutsThatCannotBeSetFailWithoutTraffic) {
  AdminClient client;
  client.FileSystemClient().set_timeout(777);
  std::string out;
  int32_t exit_code = 0;
  const std::string code = internal::BuiltInAccessCode();
  EXPECT_FALSE(client.RemoteCommandCall("x", std::numeric_limits<int32_t>::max() - 999, code, out,
                                        exit_code));
  EXPECT_EQ(client.ErrNumber(), 6);
  EXPECT_EQ(client.ErrDescription(), "[RemoteCommandCall] Overflow");
  EXPECT_EQ(client.FileSystemClient().timeout(), 777);
  EXPECT_FALSE(client.RemoteCommandCall("x", -1001, code, out, exit_code));
  EXPECT_EQ(client.ErrNumber(), 380);
  EXPECT_EQ(client.ErrDescription(), "[RemoteCommandCall] Invalid property value");
  EXPECT_EQ(client.FileSystemClient().timeout(), 777);
  EXPECT_FALSE(client.RemoteCommandCall("x", 5, code, out, exit_code));
  EXPECT_EQ(client.ErrNumber(), 8117);
  EXPECT_EQ(client.FileSystemClient().timeout(), 777);
}

TEST(AdminClient, RemoteSystemTimeReadsTheServersClock) {
  ConnectedClient c;
  ExpectRequest(c.peer).ReplyWith(Answer(TextData("12/31/2008 11:59:58 PM")));
  ASSERT_TRUE(c.Start());
  EXPECT_EQ(c.client.RemoteSystemTime().ToCivil(), (CivilTime{2008, 12, 31, 23, 59, 58}));
  EXPECT_EQ(c.client.ErrNumber(), 0);
}

TEST(AdminClient, RemoteAppRootPathRefusesUnknownProductsWithoutTraffic) {
  AdminClient client;
  for (const char* product : {"", "qelx", "vor"}) {
    client.SetProduct(product);
    try {
      client.RemoteAppRootPath();
      ADD_FAILURE() << "no error for product " << product;
    } catch (const Error& e) {
      EXPECT_EQ(e.Number(), 9000);
      EXPECT_EQ(e.Description(), std::string("Invalid product code:") + product);
    }
  }
}

TEST(AdminClient, RemoteAppRootPathGoesTwoLevelsUpFromTheProductsPath) {
  const std::pair<const char*, const char*> cases[] = {{"QEL", "QelProgram"},
                                                       {"Vorin", "VorProgram"}};
  for (const auto& [product, key] : cases) {
    ConnectedClient c;
    const Bytes path = TextData("D:/Apps/Qel/Program/");
    ExpectRequest(c.peer).ReplyWith(Answer(SizeData(static_cast<int32_t>(path.size())))).Send(path);
    ASSERT_TRUE(c.Start());
    c.client.SetProduct(product);
    EXPECT_EQ(c.client.RemoteAppRootPath(), "D:\\Apps");
    ASSERT_TRUE(c.peer.Finish()) << c.peer.Failure();
    const Bytes block = c.peer.Received(2);
    const std::string wanted = key;
    for (size_t i = 0; i < wanted.size(); ++i) EXPECT_EQ(block[6 + 2 * i], wanted[i]);
  }
}

TEST(AdminClient, RemoteAppRootPathRaisesPathNotFoundForAnEmptyPath) {
  for (const Bytes& raw : {Bytes{}, TextData("   ")}) {
    ConnectedClient c;
    ExpectRequest(c.peer).ReplyWith(Answer(SizeData(static_cast<int32_t>(raw.size()))));
    if (!raw.empty()) c.peer.Send(raw);
    ASSERT_TRUE(c.Start());
    c.client.SetProduct("qel");
    try {
      c.client.RemoteAppRootPath();
      ADD_FAILURE() << "no error";
    } catch (const Error& e) {
      EXPECT_EQ(e.Number(), 76);
      EXPECT_EQ(e.Description(), "Path not found");
      EXPECT_EQ(e.Source(), "RemoteAppRootPath");
    }
  }
}

}  // namespace
}  // namespace pelmora::admin
