#include "pelmora/net/socket_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/common/system.h"
#include "pelmora/net/internal/socket_api.h"
#include "pelmora/testing/raised_error.h"
#include "pelmora/testing/scripted_peer.h"

namespace pelmora {
namespace {

using net_internal::Ipv4Endpoint;
using net_internal::SocketApi;
using net_internal::SocketResult;
using testing::Bytes;
using testing::ScriptedPeer;

constexpr char kNotConnected[] =
    "A request to send or receive data was disallowed because the socket is not connected and "
    "(when sending on a datagram socket using a sendto call) no address was supplied.";
constexpr char kTimedOut[] =
    "A connection attempt failed because the connected party did not properly respond after a "
    "period of time, or established connection failed because connected host has failed to "
    "respond.";

// The system's socket layer, except that the next `silent_receives` receives find nothing and
// their waits time out at once (as a silent server's would after ten seconds), the next
// `failing_receives` receives fail with a reset, and SetSockOpt calls are counted.
class QuickTimeoutApi final : public SocketApi {
 public:
  int silent_receives = 0;
  int timed_out_waits = 0;
  int set_options = 0;
  int failing_receives = 0;  // the next this many receives fail with ECONNRESET

  SocketResult Poll(int fd, short events, int timeout_ms) override {
    if (events == POLLIN && silent_receives > 0) {
      --silent_receives;
      ++timed_out_waits;
      return {0, 0};
    }
    return inner_->Poll(fd, events, timeout_ms);
  }
  SocketResult SetSockOpt(int fd, int level, int name, const void* data, socklen_t n) override {
    ++set_options;
    return inner_->SetSockOpt(fd, level, name, data, n);
  }
  SocketResult Socket(int type, int protocol) override { return inner_->Socket(type, protocol); }
  SocketResult Connect(int fd, const Ipv4Endpoint& to) override { return inner_->Connect(fd, to); }
  SocketResult Bind(int fd, const Ipv4Endpoint& at) override { return inner_->Bind(fd, at); }
  SocketResult Listen(int fd, int backlog) override { return inner_->Listen(fd, backlog); }
  SocketResult Accept(int fd, Ipv4Endpoint* peer) override { return inner_->Accept(fd, peer); }
  SocketResult Send(int fd, const void* data, size_t size, int flags) override {
    return inner_->Send(fd, data, size, flags);
  }
  SocketResult Recv(int fd, void* data, size_t size, int flags) override {
    if (silent_receives > 0) return {-1, EAGAIN};
    if (failing_receives > 0 && failing_receives-- > 0) return {-1, ECONNRESET};
    return inner_->Recv(fd, data, size, flags);
  }
  SocketResult GetSockOpt(int fd, int level, int name, void* data, socklen_t* n) override {
    return inner_->GetSockOpt(fd, level, name, data, n);
  }
  SocketResult LocalEndpoint(int fd, Ipv4Endpoint& at) override {
    return inner_->LocalEndpoint(fd, at);
  }
  SocketResult Close(int fd) override { return inner_->Close(fd); }
  SocketResult ResolveIPv4(const std::string& name) override { return inner_->ResolveIPv4(name); }
  SocketResult HostName(std::string& name) override { return inner_->HostName(name); }

 private:
  std::shared_ptr<SocketApi> inner_ = net_internal::SystemSocketApi();
};

// A 512-byte block starting with `text`.
Bytes Block(std::string_view text) {
  Bytes block(SocketClient::kBlockSize, 0);
  std::copy(text.begin(), text.end(), block.begin());
  return block;
}

Bytes AsBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

// A client over QuickTimeoutApi whose reply-loop clock moves on `step_seconds` with every reading
// and whose pauses are counted; log lines go to a scratch folder at a pinned time.
class SocketClientTest : public ::testing::Test {
 protected:
  internal::ScratchFolder scratch_;
  internal::ScopedEnv home_{"PELMORA_HOME", scratch_.Path() + "/lib"};
  internal::PinnedClock log_clock_{{2009, 3, 14, 8, 5, 9}};
  std::shared_ptr<QuickTimeoutApi> api_ = std::make_shared<QuickTimeoutApi>();
  Date start_ = *Date::FromCivil({2020, 1, 1, 0, 0, 0});
  std::vector<int> clock_seconds_;  // readings to give, then one second more per reading
  int readings_ = 0;
  int pauses_ = 0;
  ScriptedPeer peer_;
  SocketClient client_{api_, [this] { return Reading(); }, [this] { ++pauses_; }};

  Date Reading() {
    int seconds =
        readings_ < static_cast<int>(clock_seconds_.size()) ? clock_seconds_[readings_] : readings_;
    ++readings_;
    return Date::FromSerial(start_.Serial() + seconds / 86400.0);
  }

  // Starts the peer's script (which sends a greeting first), then connects.
  void ConnectAfter(ScriptedPeer& script) {
    script.Start();
    ASSERT_TRUE(client_.Connect("127.0.0.1", peer_.Port()));
  }

  std::string LogFile(const char* extension) {
    return internal::ReadWholeFile(scratch_.Path() + "/Log/200903/20090314" + extension)
        .value_or("");
  }

  static std::string Line(const std::string& letter, const std::string& where, int32_t error,
                          const std::string& message) {
    return "2009-03-14 08:05:09`" + letter + "`" + LocalComputerName() + "`[" + where + "]`0`" +
           std::to_string(error) + "`" + message + "\r\n";
  }
};

TEST_F(SocketClientTest, StartsWithNoErrorTheStoredTimeoutAndNoKeepAlive) {
  EXPECT_EQ(client_.ErrCode(), 0);
  EXPECT_EQ(client_.ErrDescription(), "");
  EXPECT_EQ(client_.timeout(), 2147483640);
  client_.SetTimeout(5);
  EXPECT_EQ(client_.timeout(), 5);
  EXPECT_EQ(client_.getRemoteIP(), "");
  ConnectAfter(peer_.Send(Block("HELLO")).ReceiveUntilClosed());
  EXPECT_EQ(api_->set_options, 0);  // the keep-alive request came before any socket existed
  EXPECT_EQ(client_.getRemoteIP(), "127.0.0.1");
  client_.Disconnect();
  EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
}

TEST_F(SocketClientTest, ConnectIsTrueForAnyGreetingEvenAnEmptyBlockFromAClosingServer) {
  peer_.Close();
  peer_.Start();
  EXPECT_TRUE(client_.Connect("127.0.0.1", peer_.Port()));  // 512 NUL characters are not ""
  EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
}

// A greeting that never comes is a failed receive: the caller's array is left as it was, so an
// empty greeting and a false Connect.
TEST_F(SocketClientTest, ConnectIsFalseWhenTheGreetingNeverComesAndFailedReceivesKeepTheArray) {
  peer_.Stall();
  peer_.Start();
  api_->silent_receives = 1;
  EXPECT_FALSE(client_.Connect("127.0.0.1", peer_.Port()));
  EXPECT_EQ(client_.ErrCode(), 10060);
  EXPECT_EQ(client_.ErrDescription(), kTimedOut);
  for (int silent : {1, 0}) {
    api_->silent_receives = silent;
    api_->failing_receives = 1 - silent;
    std::vector<uint8_t> message = {1, 2, 3};
    EXPECT_FALSE(client_.RecvMessage(SocketClient::kBlockSize, message));
    EXPECT_EQ(message, Bytes({1, 2, 3}));
  }
  EXPECT_EQ(client_.ErrCode(), 10054);
  client_.Disconnect();
}

TEST_F(SocketClientTest, ConnectRaisesWhenRefused) {
  uint16_t closed_port = 0;
  {
    ScriptedPeer gone;  // its port is free again once it is destroyed
    closed_port = gone.Port();
  }
  Error e = testing::RaisedError([&] { client_.Connect("127.0.0.1", closed_port); });
  EXPECT_EQ(e.Number(), 10061);
  EXPECT_EQ(e.Description(),
            "No connection could be made because the target machine actively refused it.");
}

TEST_F(SocketClientTest, SendsWholeBlocksThatKeepEarlierLeftovers) {
  ConnectAfter(peer_.Send(Block("HI")).Receive(512).Receive(512).Receive(512).ReceiveUntilClosed());
  EXPECT_TRUE(client_.SendMessage(5, AsBytes("HELLO")));
  EXPECT_TRUE(client_.SendMessage(2, AsBytes("ABCDEF")));  // only the first two bytes are taken
  EXPECT_TRUE(client_.SendMessage(0, {}));
  for (int32_t size : {513, -1}) {
    EXPECT_FALSE(client_.SendMessage(size, Bytes(600, 'x')));
    EXPECT_EQ(client_.ErrCode(), 8004);
    EXPECT_EQ(client_.ErrDescription(), "Invalid Data Size");
  }
  client_.Disconnect();
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();
  EXPECT_EQ(peer_.Received(0), Block("HELLO"));
  EXPECT_EQ(peer_.Received(1), Block("ABLLO"));
  EXPECT_EQ(peer_.Received(2), Block("ABLLO"));
  EXPECT_EQ(peer_.Received(3), Bytes());  // nothing after the refused sizes
}

TEST_F(SocketClientTest, SendFailureSetsTheSocketErrorAndLogsIt) {
  EXPECT_FALSE(client_.SendMessage(1, AsBytes("x")));
  EXPECT_EQ(client_.ErrCode(), 10057);
  EXPECT_EQ(client_.ErrDescription(), kNotConnected);
  EXPECT_EQ(LogFile(".log"),
            Line("I", "RSFSO:SendPacket", 10057, "**Send Packet fail err = 10057"));
}

TEST_F(SocketClientTest, ReplyIsTheBytesOfTheNextReceiveAsAnsiText) {
  ConnectAfter(peer_.Send(Block("HI")).Receive(512).Send({'O', 'K', 0, 0xE9}).Close());
  std::string reply;
  EXPECT_TRUE(client_.SendMessageWithReply("AB", reply));
  EXPECT_EQ(reply, std::string("OK\0\xC3\xA9", 5));  // four characters, the third a NUL
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();
  Bytes expected = Block("A");
  expected[2] = 'B';  // A, 0, B: the high byte of the last character stays behind
  EXPECT_EQ(peer_.Received(0), expected);
}

TEST_F(SocketClientTest, MessageWithReplyTakesAtMost256Characters) {
  ConnectAfter(peer_.Send(Block("HI")).Receive(512).ReceiveUntilClosed());
  std::string reply = "unchanged";
  for (const std::string& message : {std::string(257, 'x'), std::string()}) {
    EXPECT_FALSE(client_.SendMessageWithReply(message, reply));
    EXPECT_EQ(client_.ErrCode(), 8004);
  }
  api_->silent_receives = 1000;
  EXPECT_FALSE(client_.SendMessageWithReply(std::string(256, 'y'), reply));  // sent, no reply
  EXPECT_EQ(reply, "unchanged");
  client_.Disconnect();
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();
  Bytes expected(512, 0);
  for (size_t i = 0; i < 511; i += 2) expected[i] = 'y';
  EXPECT_EQ(peer_.Received(0), expected);
}

TEST_F(SocketClientTest, ReplyLoopGivesUpOnceMoreThanTenSecondsHavePassed) {
  ConnectAfter(peer_.Send(Block("HI")).Receive(512).ReceiveUntilClosed());
  api_->silent_receives = 1000;
  std::string reply;
  EXPECT_FALSE(client_.SendMessageWithReply("PING", reply));
  // Readings 0 (start), 1..10 each followed by a receive that times out, then 11: give up.
  EXPECT_EQ(api_->timed_out_waits, 10);
  EXPECT_EQ(readings_, 12);
  EXPECT_EQ(pauses_, 0);  // every attempt waited its full time
  EXPECT_EQ(client_.ErrCode(), 10060);
  EXPECT_EQ(client_.ErrDescription(), kTimedOut);
  std::string line = Line("E", "SocketClient:RecvMessage", 10060, kTimedOut);
  std::string ten_lines;
  for (int i = 0; i < 10; ++i) ten_lines += line;
  EXPECT_EQ(LogFile(".err"), ten_lines);
  client_.Disconnect();
  EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
}

TEST_F(SocketClientTest, ReplyLoopCountsWholeSecondsFromTheStart) {
  ConnectAfter(peer_.Send(Block("HI")).Receive(512).Send(Block("LATE")).ReceiveUntilClosed());
  api_->silent_receives = 2;
  clock_seconds_ = {0, 10, 10, 10};  // exactly ten seconds is not more than ten
  std::string reply;
  EXPECT_TRUE(client_.SendMessageWithReply("PING", reply));
  EXPECT_EQ(reply.substr(0, 5), std::string("LATE\0", 5));
  EXPECT_EQ(reply.size(), 512u);
  EXPECT_EQ(readings_, 4);
  client_.Disconnect();
  EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
}

TEST_F(SocketClientTest, ReplyLoopPausesAfterAnAttemptThatFailsAtOnce) {
  ConnectAfter(peer_.Send(Block("HI")).Receive(512).Send(Block("PONG")).ReceiveUntilClosed());
  api_->failing_receives = 3;
  std::string reply;
  EXPECT_TRUE(client_.SendMessageWithReply("PING", reply));
  EXPECT_EQ(reply.substr(0, 5), std::string("PONG\0", 5));
  EXPECT_EQ(pauses_, 3);
  EXPECT_EQ(client_.ErrCode(), 10054);  // a success does not clear the last error
  client_.Disconnect();
  EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
}

TEST_F(SocketClientTest, DisconnectLogsAndClosesTheConnection) {
  ConnectAfter(peer_.Send(Block("HI")).ReceiveUntilClosed());
  client_.Disconnect();
  EXPECT_TRUE(peer_.Finish()) << peer_.Failure();
  EXPECT_EQ(LogFile(".log"), Line("I", "SocketClient:Disconnect", -1, "Client Disconnected"));
  std::vector<uint8_t> bytes;
  EXPECT_FALSE(client_.RecvMessage(512, bytes));
  EXPECT_EQ(client_.ErrCode(), 10057);
  EXPECT_THAT(LogFile(".err"), ::testing::HasSubstr("[SocketClient:RecvMessage]`0`10057`" +
                                                    std::string(kNotConnected)));
}

}  // namespace
}  // namespace pelmora
