// RCFSO session tests: login message, credentials, refusals, time-outs, sequence numbers across
// messages and connections, disconnect and the FSODisconnect event, with the log lines written.
#include "pelmora/admin/rcfso.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/internal/rcfso_test_access.h"
#include "pelmora/admin/wire.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/log.h"
#include "pelmora/testing/admin_peer.h"
#include "pelmora/testing/fault_socket_api.h"

namespace pelmora::admin {
namespace {

using internal::RCFSOTestAccess;
using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::LogCapture;
using pelmora::testing::LogLine;
using pelmora::testing::ResultData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SequenceOf;

class RecordingSink : public RCFSOEvents {
 public:
  void FSOError(std::string& message) override { events.push_back("FSOError:" + message); }
  void FSODisconnect(std::string& message) override {
    events.push_back("FSODisconnect:" + message);
  }
  void CommandOutput(std::string& text) override { events.push_back("CommandOutput:" + text); }
  std::vector<std::string> events;
};

std::string Handle(const RCFSO& fso) { return RCFSOTestAccess::Handle(fso); }

TEST(RCFSO, StartsDisconnectedWithItsDefaults) {
  LogLevel() = 0;
  RCFSO fso;
  EXPECT_EQ(fso.timeout(), 10000);
  EXPECT_EQ(fso.ErrCode(), 0);
  EXPECT_EQ(fso.ErrDescription(), "");
  EXPECT_EQ(LogLevel(), 3);
  EXPECT_EQ(RCFSOTestAccess::Sequence(fso), 2147483640);
  EXPECT_FALSE(RCFSOTestAccess::Connected(fso));
  EXPECT_THAT(fso.CacheFolder(), ::testing::EndsWith("Corvanta/Qelmark/Admin/2.0/RSOCache/"));
  fso.SetLogPath("/some/where");
  EXPECT_EQ(LogRoot(), "/some/where");
  EXPECT_EQ(fso.LogPath(), "/some/where");
  fso.set_timeout(250);
  EXPECT_EQ(RCFSOTestAccess::Socket(fso).ReceiveTimeout(), 250);
  try {
    fso.set_timeout(-1);
    ADD_FAILURE() << "a negative time-out was accepted";
  } catch (const Error& e) {
    EXPECT_EQ(e.Number(), 380);
    EXPECT_EQ(e.Description(), "Invalid property value");
  }
  EXPECT_EQ(fso.timeout(), 250);
}

TEST(RCFSO, SendsTheLoginAsGivenWhenAlreadyEncoded) {
  LogCapture log;
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  peer.Start();
  RCFSO fso;
  ASSERT_TRUE(fso.Connect("127.0.0.1", peer.Port(), "ad min", "pw", true)) << fso.ErrDescription();
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  Bytes expected(1500, 0);
  const uint8_t head[] = {0xFF, 0xFF, 0xFF, 0xF9, 0xFF, 0xFF, 0x7F, 9,  0,   0,
                          0,    'a',  'd',  ' ',  'm',  'i',  'n',  10, 'p', 'w'};
  std::copy(std::begin(head), std::end(head), expected.begin());
  EXPECT_EQ(peer.Received(0), expected);
  EXPECT_EQ(fso.ErrCode(), 0);
  EXPECT_TRUE(log.Has(".log", {"I", "RFSO", "Connect", Handle(fso) + "** Connected "}));
  EXPECT_TRUE(log.Has(".log", {"I", "RFSO", "Connect", Handle(fso) + "** login True"}));
}

TEST(RCFSO, EncodesPlainCredentialsWithTheCredentialTable) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  peer.Start();
  RCFSO fso;
  ASSERT_TRUE(fso.Connect("127.0.0.1", peer.Port(), "user", " ", false));
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  const std::string login = EncodeCredential("user") + "\n" + EncodeCredential(" ");
  const Bytes packet = peer.Received(0);
  EXPECT_EQ(packet[7], login.size());
  EXPECT_EQ(std::string(packet.begin() + 11, packet.begin() + 11 + login.size()), login);
  EXPECT_NE(login, "user\n ");
}

TEST(RCFSO, RefusesEmptyCredentialsWithoutTraffic) {
  ScriptedPeer peer;
  peer.Start();
  RCFSO fso;
  EXPECT_FALSE(fso.Connect("127.0.0.1", peer.Port(), "", "p", true));
  EXPECT_EQ(fso.ErrCode(), 8116);
  EXPECT_EQ(fso.ErrDescription(), "Empty user name");
  EXPECT_FALSE(fso.Connect("127.0.0.1", peer.Port(), "u", "", false));
  EXPECT_EQ(fso.ErrCode(), 8116);
  EXPECT_EQ(fso.ErrDescription(), "Empty password ");
  EXPECT_FALSE(RCFSOTestAccess::Connected(fso));
  EXPECT_EQ(RCFSOTestAccess::Sequence(fso), 2147483640);
}

TEST(RCFSO, RefusedLoginKeepsTheServersErrorAndStaysConnected) {
  LogCapture log;
  ScriptedPeer peer;
  peer.Receive(1500).ReplyWith(Answer(ResultData(false, 1326, "Logon failure")));
  ExpectRequest(peer).ReplyWith(Answer(ResultData(false, 5, "Access denied")));
  peer.Start();
  RCFSO fso;
  EXPECT_FALSE(fso.Connect("127.0.0.1", peer.Port(), "u", "p", true));
  EXPECT_EQ(fso.ErrCode(), 1326);
  EXPECT_EQ(fso.ErrDescription(), "Logon failure");
  EXPECT_TRUE(log.Has(".log", {"I", "RFSO", "Connect", Handle(fso) + "** login False"}));
  // The session still counts as connected: the next request goes out and the server refuses it.
  EXPECT_FALSE(fso.FileExists("C:\\x"));
  EXPECT_EQ(fso.ErrCode(), 5);
  EXPECT_EQ(fso.ErrDescription(), "Access denied");
  EXPECT_TRUE(peer.Finish()) << peer.Failure();
}

TEST(RCFSO, LoginAnswerThatNeverComesTimesOut) {
  LogCapture log;
  ScriptedPeer peer;
  peer.Receive(1500).Stall();
  peer.Start();
  RCFSO fso;
  fso.set_timeout(200);
  EXPECT_FALSE(fso.Connect("127.0.0.1", peer.Port(), "u", "p", true));
  EXPECT_EQ(fso.ErrCode(), 10060);
  EXPECT_EQ(fso.ErrDescription(), DescribeError(10060));
  EXPECT_TRUE(RCFSOTestAccess::Connected(fso));
  EXPECT_TRUE(log.Has(".log", {"I", "RCFSO", "RecvMessage", DescribeError(10060)}));
  fso.Disconnect();
}

TEST(RCFSO, ConnectionRefusedReportsTheSocketError) {
  LogCapture log;
  uint16_t port = 0;
  {
    ScriptedPeer closed;  // a port that was free a moment ago and is closed again
    port = closed.Port();
  }
  RCFSO fso;
  EXPECT_FALSE(fso.Connect("127.0.0.1", port, "u", "p", true));
  EXPECT_EQ(fso.ErrCode(), 10061);
  EXPECT_EQ(fso.ErrDescription(), DescribeError(10061));
  EXPECT_FALSE(RCFSOTestAccess::Connected(fso));
  EXPECT_TRUE(log.Has(".log", {"I", "RFSO", "Connect", "(-1)** Connected fail"}));
}

TEST(RCFSO, SequenceNumbersWrapToZeroAtTheEighthFramedMessage) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  for (int i = 0; i < 7; ++i) ExpectRequest(peer).ReplyWith(Answer(ResultData(true)));
  peer.Start();
  RCFSO fso;
  ASSERT_TRUE(fso.Connect("127.0.0.1", peer.Port(), "u", "p", true));
  for (int i = 0; i < 7; ++i) EXPECT_TRUE(fso.FileExists("f")) << i << fso.ErrDescription();
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  std::vector<int32_t> framed = {SequenceOf(peer.Received(0))};
  for (size_t i = 1; i < 15; i += 2) framed.push_back(SequenceOf(peer.Received(i)));
  EXPECT_THAT(framed, ::testing::ElementsAre(2147483641, 2147483642, 2147483643, 2147483644,
                                             2147483645, 2147483646, 2147483647, 0));
}

TEST(RCFSO, ReconnectingStartsAFreshLoginWithTheCounterRunningOn) {
  LogCapture log;
  ScriptedPeer first;
  ScriptedPeer second;
  first.Receive(1500).ReplyWith(Answer(ResultData(false, 1, "no"))).ReceiveUntilClosed();
  ExpectLogin(second, true);
  first.Start();
  second.Start();
  RCFSO fso;
  EXPECT_FALSE(fso.Connect("127.0.0.1", first.Port(), "u", "p", true));
  const std::string handle = std::to_string(RCFSOTestAccess::Socket(fso).SocketHandle());
  fso.Disconnect();
  EXPECT_FALSE(RCFSOTestAccess::Connected(fso));
  EXPECT_TRUE(log.Has(
      ".log", {"I", "RSFSO", "Disconnect", "(" + handle + ")Client Disconnected" + handle}));
  EXPECT_EQ(fso.FileExists("f"), false);
  EXPECT_EQ(fso.ErrCode(), 8117);
  EXPECT_EQ(fso.ErrDescription(), "Connection has not established");
  EXPECT_TRUE(fso.Connect("127.0.0.1", second.Port(), "u", "p", true));
  ASSERT_TRUE(first.Finish()) << first.Failure();
  ASSERT_TRUE(second.Finish()) << second.Failure();
  EXPECT_EQ(SequenceOf(second.Received(0)), 2147483642);
}

TEST(RCFSO, DisconnectNotificationRaisesFSODisconnect) {
  LogCapture log;
  RCFSO fso;
  RecordingSink sink;
  fso.AddEventSink(&sink);
  fso.NotifyDisconnect("server going down");
  EXPECT_THAT(sink.events, ::testing::ElementsAre("FSODisconnect:server going down"));
  EXPECT_TRUE(log.Has(".log", {"I", "RSFSO", "FSODIsconnect", "(-1)Client Disconnected-1"}));
  fso.RemoveEventSink(&sink);
  fso.NotifyDisconnect("again");
  EXPECT_EQ(sink.events.size(), 1u);
}

TEST(RCFSO, SendToAResetPeerRaisesFSODisconnect) {
  LogCapture log;
  ScriptedPeer peer;
  ExpectLogin(peer, true).Close(/*reset=*/true);
  peer.Start();
  RCFSO fso;
  RecordingSink sink;
  fso.AddEventSink(&sink);
  ASSERT_TRUE(fso.Connect("127.0.0.1", peer.Port(), "u", "p", true));
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  EXPECT_FALSE(fso.FileExists("f"));
  EXPECT_EQ(fso.ErrCode(), 10054);
  EXPECT_EQ(fso.ErrDescription(), DescribeError(10054));
  EXPECT_THAT(sink.events, ::testing::ElementsAre("FSODisconnect:" + DescribeError(10054)));
  EXPECT_TRUE(RCFSOTestAccess::Connected(fso));
  EXPECT_TRUE(log.Has(
      ".log", {"I", "RSFSO", "SendPacket", Handle(fso) + "**Send Packet fail err = 10054"}));
  EXPECT_TRUE(log.Has(".log", {"I", "RSFSO", "FileExists", Handle(fso) + "** Send request fail"}));
}

// A login that cannot be sent is an error line (the .err file), unlike the other session lines.
TEST(RCFSO, LoginThatCannotBeSentIsLoggedAsAnErrorAndLeavesTheConnectionOpen) {
  LogCapture log;
  ScriptedPeer peer;
  peer.Stall();
  peer.Start();
  auto api = std::make_shared<pelmora::testing::FaultSocketApi>();
  RCFSO fso;
  RCFSOTestAccess::Socket(fso) = WinSock(api);
  api->FailNext(pelmora::testing::SocketCall::kSend, ECONNRESET);
  EXPECT_FALSE(fso.Connect("127.0.0.1", peer.Port(), "u", "p", true));
  EXPECT_EQ(fso.ErrCode(), 10054);
  EXPECT_EQ(fso.ErrDescription(), DescribeError(10054));
  EXPECT_TRUE(RCFSOTestAccess::Connected(fso));
  EXPECT_TRUE(log.Has(".err", {"E", "RFSO", "Connect", Handle(fso) + "** Send login fail "}));
  EXPECT_FALSE(log.Has(".log", {"I", "RFSO", "Connect", Handle(fso) + "** Send login fail "}));
  fso.Disconnect();
}

TEST(RCFSO, FailureLinesAreWrittenAtLogLevelOneAndTracesAreNot) {
  LogCapture log;
  ScriptedPeer peer;
  peer.Receive(1500).Stall();
  peer.Start();
  RCFSO fso;
  LogLevel() = 1;
  fso.set_timeout(100);
  EXPECT_FALSE(fso.Connect("127.0.0.1", peer.Port(), "u", "p", true));
  const std::vector<LogLine> lines = log.Lines(".log");
  EXPECT_THAT(lines,
              ::testing::ElementsAre(LogLine{"I", "RCFSO", "RecvMessage", DescribeError(10060)}));
}

}  // namespace
}  // namespace pelmora::admin
