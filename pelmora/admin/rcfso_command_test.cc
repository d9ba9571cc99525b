// RCFSO remote command tests: the command request on the wire, output events, status codes and
// the replies that are skipped.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pelmora/admin/rcfso.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/testing/admin_peer.h"

namespace pelmora::admin {
namespace {

using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::FramedPacket;
using pelmora::testing::KindData;
using pelmora::testing::LogIn;
using pelmora::testing::OutputData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::StatusData;

class OutputSink : public RCFSOEvents {
 public:
  void CommandOutput(std::string& text) override { outputs.push_back(text); }
  std::vector<std::string> outputs;
};

// A connected client whose command request is answered with `replies`.
struct CommandSession {
  explicit CommandSession(std::vector<Bytes> replies, size_t block_size = 1500) {
    ExpectLogin(peer, true);
    ExpectRequest(peer, block_size).ReplyWith(Answer(std::move(replies)));
    EXPECT_TRUE(LogIn(fso, peer));
    fso.AddEventSink(&sink);
  }
  ScriptedPeer peer;
  RCFSO fso;
  OutputSink sink;
};

TEST(RCFSOCommand, SendsTheCommandRequestAnnouncedByItsLength) {
  CommandSession s({StatusData(9000)});
  EXPECT_TRUE(s.fso.SyncCreateProcess("dir C:\\ /b", 5000));  // 10 characters
  ASSERT_TRUE(s.peer.Finish()) << s.peer.Failure();
  const Bytes announce = s.peer.Received(1);
  EXPECT_EQ(Bytes(announce.begin() + 7, announce.begin() + 15), (Bytes{4, 0, 0, 0, 25, 0, 0, 0}));
  Bytes expected(1500, 0);
  const Bytes head = {20,  2,   11,  0, 0, 0, 'd', 'i', 'r',  ' ',  'C', ':', '\\',
                      ' ', '/', 'b', 0, 4, 0, 0,   0,   0x88, 0x13, 0,   0};
  std::copy(head.begin(), head.end(), expected.begin());
  EXPECT_EQ(s.peer.Received(2), expected);
}

TEST(RCFSOCommand, LongCommandIsSentAtItsExactLength) {
  const std::string command(2000, 'x');
  CommandSession s({StatusData(9000)}, 2015);
  EXPECT_TRUE(s.fso.SyncCreateProcess(command, -1));
  ASSERT_TRUE(s.peer.Finish()) << s.peer.Failure();
  const Bytes block = s.peer.Received(2);
  EXPECT_EQ(Bytes(block.end() - 9, block.end()), (Bytes{0, 4, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(RCFSOCommand, OutputRepliesRaiseCommandOutputInOrder) {
  CommandSession s({OutputData("Volume in drive C\r\n"), KindData(7, 1), OutputData("a.txt\r\n"),
                    StatusData(7), KindData(1, 0), OutputData("caf\xC3\xA9"), StatusData(9000)});
  EXPECT_TRUE(s.fso.SyncCreateProcess("dir", 1000));
  EXPECT_THAT(s.sink.outputs,
              ::testing::ElementsAre("Volume in drive C\r\n", "a.txt\r\n", "", "caf\xC3\xA9"));
  EXPECT_EQ(s.fso.ErrCode(), 0);
}

TEST(RCFSOCommand, MalformedRepliesAreSkipped) {
  CommandSession s({Bytes{1, 0}, KindData(1, 50), Bytes{0, 0, 0, 0}, KindData(1, -3),
                    OutputData("ok"), StatusData(9000)});
  EXPECT_TRUE(s.fso.SyncCreateProcess("dir", 1000));
  EXPECT_THAT(s.sink.outputs, ::testing::ElementsAre("ok"));
}

TEST(RCFSOCommand, AbnormalEndsGiveTheirCodesAndTexts) {
  const std::pair<int32_t, const char*> cases[] = {{9001, "Create process fail"},
                                                   {9002, "Process terminated abnormally"},
                                                   {9003, "Request time out"}};
  for (const auto& [status, text] : cases) {
    CommandSession s({OutputData("partial"), StatusData(status)});
    EXPECT_FALSE(s.fso.SyncCreateProcess("run", 1000));
    EXPECT_EQ(s.fso.ErrCode(), status);
    EXPECT_EQ(s.fso.ErrDescription(), text);
    EXPECT_THAT(s.sink.outputs, ::testing::ElementsAre("partial"));
  }
}

TEST(RCFSOCommand, StaleRepliesOfAnEarlierRequestAreSkipped) {
  ScriptedPeer peer;
  RCFSO fso;
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith([](const std::vector<Bytes>& got) {
    Bytes stale = FramedPacket(2147483641, StatusData(9001));
    Bytes good = FramedPacket(pelmora::testing::LastSequence(got), StatusData(9000));
    stale.insert(stale.end(), good.begin(), good.end());
    return stale;
  });
  ASSERT_TRUE(LogIn(fso, peer));
  EXPECT_TRUE(fso.SyncCreateProcess("x", 0));
  EXPECT_EQ(fso.ErrCode(), 8004);
  EXPECT_EQ(fso.ErrDescription(), "Invalid DataSize");
}

TEST(RCFSOCommand, RefusesBlankCommandsAndMissingSessions) {
  RCFSO fso;
  for (const char* blank : {"", "   "}) {
    EXPECT_FALSE(fso.SyncCreateProcess(blank, 1000));
    EXPECT_EQ(fso.ErrCode(), 8116);
    EXPECT_EQ(fso.ErrDescription(), "Empty command");
  }
  EXPECT_FALSE(fso.SyncCreateProcess("dir", 1000));
  EXPECT_EQ(fso.ErrCode(), 8117);
  EXPECT_EQ(fso.ErrDescription(), "Connection has not established");
}

TEST(RCFSOCommand, ServerThatStopsAnsweringTimesOut) {
  ScriptedPeer peer;
  RCFSO fso;
  OutputSink sink;
  fso.AddEventSink(&sink);
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(OutputData("started"))).Stall();
  ASSERT_TRUE(LogIn(fso, peer));
  fso.set_timeout(100);
  EXPECT_FALSE(fso.SyncCreateProcess("sleep", 60000));
  EXPECT_EQ(fso.ErrCode(), 10060);
  EXPECT_EQ(fso.ErrDescription(), DescribeError(10060));
  EXPECT_THAT(sink.outputs, ::testing::ElementsAre("started"));
  fso.Disconnect();
}

}  // namespace
}  // namespace pelmora::admin
