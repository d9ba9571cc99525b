// RCFSO framing tests: framed messages, skipped and fatal reply packets, request blocks and their
// argument forms, result replies, and the bounds on every receive.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <iterator>
#include <random>

#include "pelmora/admin/internal/rcfso_test_access.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/testing/admin_peer.h"

namespace pelmora::admin {
namespace {

using internal::RCFSOTestAccess;
using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::FramedPacket;
using pelmora::testing::LastSequence;
using pelmora::testing::LogCapture;
using pelmora::testing::LogIn;
using pelmora::testing::ResultData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SequenceOf;
using pelmora::testing::TextData;

// The sequence number the first request after the login announces itself with.
constexpr int32_t kFirstRequest = 2147483642;

// Bytes as a packet with the given sequence number and a declared size that may lie.
Bytes RawPacket(int32_t sequence, int32_t declared, Bytes data = {}) {
  Bytes packet = FramedPacket(sequence, data);
  for (int i = 0; i < 4; ++i) packet[7 + i] = static_cast<uint8_t>(uint32_t(declared) >> (8 * i));
  return packet;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

TEST(RCFSOFraming, EmptyMessageIsAHeaderAndPadding) {
  ScriptedPeer peer;
  peer.Receive(1500).Receive(1500);
  peer.Start();
  RCFSO fso;
  fso.set_timeout(20);
  fso.Connect("127.0.0.1", peer.Port(), "u", "p", true);  // the login answer never comes
  ASSERT_TRUE(RCFSOTestAccess::SendMessage(fso, 0, {}));
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  Bytes expected(1500, 0);
  const uint8_t head[] = {0xFF, 0xFF, 0xFF, 0xFA, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0};
  std::copy(std::begin(head), std::end(head), expected.begin());
  EXPECT_EQ(peer.Received(1), expected);
}

TEST(RCFSOFraming, RefusesSizesOutsideThePacketWithoutSending) {
  LogCapture log;
  RCFSO fso;
  const Bytes data(1600, 'x');
  for (int32_t size : {-1, 1490, 1500, 1501}) {
    EXPECT_FALSE(RCFSOTestAccess::SendMessage(fso, size, data)) << size;
    EXPECT_EQ(fso.ErrCode(), 8004);
    EXPECT_EQ(fso.ErrDescription(), "Invalid Data Size");
  }
  EXPECT_FALSE(RCFSOTestAccess::SendMessage(fso, 10, Bytes(4, 0)));  // more than the data holds
  EXPECT_EQ(RCFSOTestAccess::Sequence(fso), 2147483640);
  EXPECT_TRUE(log.Has(".log", {"I", "RCFSO", "SendMessage", "Invalid Data Size"}));
  // With no connection the packet itself is refused by the socket.
  EXPECT_FALSE(RCFSOTestAccess::SendMessage(fso, 1489, data));
  EXPECT_EQ(fso.ErrCode(), 10057);
}

TEST(RCFSOFraming, SkipsStaleAndForeignPacketsAndKeepsTheirError) {
  struct Case {
    Bytes skipped;
    int32_t code;
    const char* description;
    const char* log_text;
  };
  Bytes bad_header = FramedPacket(kFirstRequest, ResultData(false, 1, "x"));
  bad_header[1] = 0xFE;
  const Case cases[] = {
      {FramedPacket(kFirstRequest - 1, ResultData(false, 1, "old")), 8004, "Invalid DataSize",
       "Invalid Sequence Number"},
      {bad_header, 8003, "Invalid Header", "Invalid Header"},
      {Bytes(kPacketSize, 0), 8003, "Invalid Header", "Invalid Header"},
  };
  for (const Case& c : cases) {
    LogCapture log;
    ScriptedPeer peer;
    RCFSO fso;
    ExpectLogin(peer, true);
    ExpectRequest(peer).Send(Concat({c.skipped, FramedPacket(kFirstRequest, TextData("C:\\W"))}));
    ASSERT_TRUE(LogIn(fso, peer));
    EXPECT_EQ(fso.GetSystemDirectory(), "C:\\W");
    EXPECT_EQ(fso.ErrCode(), c.code);
    EXPECT_EQ(fso.ErrDescription(), c.description);
    EXPECT_TRUE(log.Has(".log", {"I", "RCFSO", "RecvMessage", c.log_text}));
    EXPECT_TRUE(peer.Finish()) << peer.Failure();
  }
}

TEST(RCFSOFraming, DeclaredSizeOutsideThePacketEndsTheRead) {
  for (int32_t declared : {-1, 1490, 1500, 0x7FFFFFFF}) {
    LogCapture log;
    ScriptedPeer peer;
    RCFSO fso;
    ExpectLogin(peer, true);
    ExpectRequest(peer).Send(RawPacket(kFirstRequest, declared, {'T', 0, 0, 0, 0}));
    ASSERT_TRUE(LogIn(fso, peer));
    EXPECT_FALSE(fso.FileExists("f")) << declared;
    EXPECT_EQ(fso.ErrCode(), 8016);
    EXPECT_EQ(fso.ErrDescription(), "Incorrect Sequence Number");
    EXPECT_TRUE(log.Has(".log", {"I", "RCFSO", "RecvMessage", "Invalid Data Size"}));
    EXPECT_TRUE(peer.Finish()) << peer.Failure();
  }
}

TEST(RCFSOFraming, PeerClosingMidReplyEndsTheReadAtOnce) {
  for (size_t sent : {0u, 11u, 700u}) {
    LogCapture log;
    ScriptedPeer peer;
    RCFSO fso;
    Bytes partial = FramedPacket(kFirstRequest, ResultData(true));
    partial.resize(sent);
    ExpectLogin(peer, true);
    ExpectRequest(peer).Send(partial).Close();
    ASSERT_TRUE(LogIn(fso, peer));
    fso.set_timeout(5000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(fso.FileExists("f")) << sent;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(fso.ErrCode(), 10054);
    EXPECT_EQ(fso.ErrDescription(), DescribeError(10054));
    // A packet cut short is skipped like a foreign one before the close ends the read.
    EXPECT_EQ(log.Has(".log", {"I", "RCFSO", "RecvMessage", "Invalid Header"}), sent > 0) << sent;
    EXPECT_TRUE(peer.Finish()) << peer.Failure();
  }
}

TEST(RCFSOFraming, SilentPeerGivesTheTimeOutWithinTheReceiveTimeOut) {
  LogCapture log;
  ScriptedPeer peer;
  RCFSO fso;
  ExpectLogin(peer, true);
  ExpectRequest(peer).Stall();
  ASSERT_TRUE(LogIn(fso, peer));
  fso.set_timeout(150);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(fso.FolderExists("d"));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(140));
  EXPECT_LT(waited, std::chrono::seconds(2));
  EXPECT_EQ(fso.ErrCode(), 10060);
  EXPECT_EQ(fso.ErrDescription(), DescribeError(10060));
  fso.Disconnect();
}

TEST(RCFSOFraming, ResultRepliesSetTheCodeInBothOutcomes) {
  struct Case {
    Bytes data;
    bool result;
    int32_t code;
    const char* description;
  };
  const Case cases[] = {
      {ResultData(true, 0), true, 0, ""},
      {ResultData(true, 77), true, 77, ""},
      {ResultData(false, 3, "Das System kann den Pfad nicht finden"), false, 3,
       "Das System kann den Pfad nicht finden"},
      {ResultData(false, 2), false, 2, ""},
      {Bytes{'F', 9, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, false, 9, ""},  // N < 0: no message
      {Bytes{0xE9, 1, 0, 0, 0, 2, 0, 0, 0, 0xE9, 'x'}, false, 1, "\xC3\xA9x"},
      {Bytes{'T', 1}, false, 8004, "Invalid Data Size"},  // too short
      {Bytes{'F', 1, 0, 0, 0, 50, 0, 0, 0, 'a'}, false, 8004, "Invalid Data Size"},
  };
  for (const Case& c : cases) {
    ScriptedPeer peer;
    RCFSO fso;
    ExpectLogin(peer, true);
    ExpectRequest(peer).ReplyWith(Answer(c.data));
    ASSERT_TRUE(LogIn(fso, peer));
    EXPECT_EQ(fso.DeleteRemoteFile("f"), c.result);
    EXPECT_EQ(fso.ErrCode(), c.code);
    EXPECT_EQ(fso.ErrDescription(), c.description);
    EXPECT_TRUE(peer.Finish()) << peer.Failure();
  }
}

TEST(RCFSOFraming, RequestBlocksArePaddedTo1500OrSentAtTheirExactLength) {
  const std::string short_name = "C:\\a.txt";
  const std::string long_name(800, 'n');  // UTF-16: 1602 bytes with the terminator
  ScriptedPeer peer;
  RCFSO fso;
  ExpectLogin(peer, true);
  ExpectRequest(peer, 1500).ReplyWith(Answer(ResultData(true)));
  ExpectRequest(peer, 2 + 4 + 1602).ReplyWith(Answer(ResultData(true)));
  ASSERT_TRUE(LogIn(fso, peer));
  EXPECT_TRUE(fso.FileExists(short_name));
  EXPECT_TRUE(fso.FileExists(long_name));
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  const Bytes announce = peer.Received(1);
  EXPECT_EQ(announce[7], 4);  // the size message carries 4 bytes: the total
  EXPECT_EQ(Bytes(announce.begin() + 11, announce.begin() + 15), (Bytes{24, 0, 0, 0}));
  Bytes expected(1500, 0);
  const Bytes head = {5,   1, 18,  0, 0,   0, 'C', 0, ':', 0, '\\', 0,
                      'a', 0, '.', 0, 't', 0, 'x', 0, 't', 0, 0,    0};
  std::copy(head.begin(), head.end(), expected.begin());
  EXPECT_EQ(peer.Received(2), expected);
  const Bytes announce_long = peer.Received(3);
  EXPECT_EQ(Bytes(announce_long.begin() + 11, announce_long.begin() + 15),
            (Bytes{0x48, 0x06, 0, 0}));  // 1608
  const Bytes block = peer.Received(4);
  ASSERT_EQ(block.size(), 1608u);
  EXPECT_EQ(Bytes(block.begin(), block.begin() + 6), (Bytes{5, 1, 0x42, 0x06, 0, 0}));
  EXPECT_EQ(Bytes(block.end() - 4, block.end()), (Bytes{'n', 0, 0, 0}));
}

TEST(RCFSOFraming, EmptyArgumentsTravelInTheirFormsLength) {
  ScriptedPeer peer;
  RCFSO fso;
  ExpectLogin(peer, true);
  for (int i = 0; i < 4; ++i) ExpectRequest(peer);
  ASSERT_TRUE(LogIn(fso, peer));
  ASSERT_TRUE(RCFSOTestAccess::SendRequestAnsi(fso, "", 14));
  ASSERT_TRUE(RCFSOTestAccess::SendRequestUnicode(fso, "", 300));  // low byte of the code: 44
  const std::string list[] = {"a", ""};
  ASSERT_TRUE(RCFSOTestAccess::SendRequestList(fso, list, 13));
  ASSERT_TRUE(RCFSOTestAccess::SendRequestTwo(fso, "", "b", 15));
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  auto head = [&](size_t index, size_t n) {
    const Bytes block = peer.Received(index);
    return Bytes(block.begin(), block.begin() + n);
  };
  EXPECT_EQ(head(2, 8), (Bytes{14, 1, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(head(4, 10), (Bytes{44, 1, 2, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(head(6, 18), (Bytes{13, 2, 4, 0, 0, 0, 'a', 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(head(8, 18), (Bytes{15, 2, 2, 0, 0, 0, 0, 0, 4, 0, 0, 0, 'b', 0, 0, 0, 0, 0}));
}

TEST(RCFSOFraming, AnsiArgumentsUseTheAnsiCodePageWithATerminator) {
  ScriptedPeer peer;
  RCFSO fso;
  ExpectLogin(peer, true);
  ExpectRequest(peer);
  ASSERT_TRUE(LogIn(fso, peer));
  ASSERT_TRUE(RCFSOTestAccess::SendRequestAnsi(fso, "d\xC3\xA9", 19));
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  const Bytes block = peer.Received(2);
  EXPECT_EQ(Bytes(block.begin(), block.begin() + 10), (Bytes{19, 1, 3, 0, 0, 0, 'd', 0xE9, 0, 0}));
  EXPECT_EQ(LastSequence(peer.ReceivedChunks()), kFirstRequest);
}

// Hostile replies: packets with the right sequence number but random sizes and data, then a
// close. Whatever the request, the call must end (no hang, no crash) once the peer has closed.
TEST(RCFSOFraming, RandomRepliesEndEveryRequestCleanly) {
  std::mt19937 random(20090314);
  const std::function<void(RCFSO&)> requests[] = {
      [](RCFSO& f) { f.FileExists("f"); },           [](RCFSO& f) { f.GetSystemTime(); },
      [](RCFSO& f) { f.GetPathWithKey("k"); },       [](RCFSO& f) { f.GetPrintQ(); },
      [](RCFSO& f) { f.SyncCreateProcess("c", 1); }, [](RCFSO& f) { f.GetFileVersion("v"); },
  };
  for (int round = 0; round < 60; ++round) {
    Bytes replies;
    for (int k = std::uniform_int_distribution<int>(0, 4)(random); k > 0; --k) {
      Bytes data(std::uniform_int_distribution<size_t>(0, 1489)(random));
      for (uint8_t& b : data) b = static_cast<uint8_t>(random() % 4 == 0 ? random() : random() % 3);
      const int32_t declared = random() % 3 == 0
                                   ? std::uniform_int_distribution<int32_t>(-8, 1600)(random)
                                   : static_cast<int32_t>(data.size());
      Bytes packet = RawPacket(kFirstRequest, declared, data);
      replies.insert(replies.end(), packet.begin(), packet.end());
    }
    replies.resize(replies.size() + std::uniform_int_distribution<size_t>(0, 40)(random), 0x41);
    ScriptedPeer peer;
    RCFSO fso;
    ExpectLogin(peer, true);
    ExpectRequest(peer, 1500).Send(replies).Close();
    ASSERT_TRUE(LogIn(fso, peer));
    fso.set_timeout(2000);
    const auto start = std::chrono::steady_clock::now();
    requests[round % std::size(requests)](fso);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << round;
    EXPECT_TRUE(peer.Finish()) << peer.Failure();
  }
}

TEST(RCFSOFraming, RequestsNeedAConnection) {
  RCFSO fso;
  EXPECT_FALSE(RCFSOTestAccess::SendRequestAnsi(fso, "", 19));
  EXPECT_EQ(fso.ErrCode(), 8117);
  EXPECT_EQ(fso.ErrDescription(), "Connection has not established");
  EXPECT_EQ(RCFSOTestAccess::Sequence(fso), 2147483640);
}

}  // namespace
}  // namespace pelmora::admin
