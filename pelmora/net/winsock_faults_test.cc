// WinSock's error paths, driven by a socket layer that fails chosen calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/net/internal/winsock_test_util.h"
#include "pelmora/net/winsock.h"
#include "pelmora/testing/fault_socket_api.h"
#include "pelmora/testing/scripted_peer.h"

namespace pelmora {
namespace {

using net_internal::Bytes;
using net_internal::ConnectTo;
using net_internal::IsOpen;
using net_internal::ListenOnFreePort;
using net_internal::Pattern;
using ::testing::ElementsAre;
using testing::FaultSocketApi;
using testing::ScriptedPeer;
using testing::SocketCall;

// A WinSock over a fault layer, connected to a scripted peer.
class FaultyConnection : public ::testing::Test {
 protected:
  void Connect() {
    peer_.Start();
    ConnectTo(socket_, peer_.Port());
  }

  std::shared_ptr<FaultSocketApi> api_ = std::make_shared<FaultSocketApi>();
  ScriptedPeer peer_;
  WinSock socket_{api_};
};

int32_t RaisedNumber(WinSock& socket, void (WinSock::*member)()) {
  try {
    (socket.*member)();
  } catch (const Error& error) {
    return error.Number();
  }
  return 0;
}

struct OpeningFault {
  SocketCall call;
  int error;
  int32_t raised;
  bool closes_socket;
};

TEST(WinSockFaults, FailedConnectRaisesMappedNumberAndClosesNewSocket) {
  const OpeningFault cases[] = {
      {SocketCall::kSocket, EMFILE, 10024, false},
      {SocketCall::kConnect, ETIMEDOUT, 10060, true},
      {SocketCall::kConnect, ENETUNREACH, 10051, true},
      {SocketCall::kConnect, EHOSTUNREACH, 10065, true},
      {SocketCall::kConnect, EACCES, 10013, true},
  };
  ScriptedPeer peer;
  for (const OpeningFault& c : cases) {
    auto api = std::make_shared<FaultSocketApi>();
    WinSock socket(api);
    socket.SetRemoteHost("127.0.0.1");
    socket.SetRemotePort(peer.Port());
    api->FailNext(c.call, c.error);
    EXPECT_EQ(RaisedNumber(socket, &WinSock::Connect), c.raised);
    EXPECT_EQ(socket.LastError(), c.raised);
    EXPECT_EQ(socket.SocketHandle(), -1);
    EXPECT_EQ(api->Closes(), c.closes_socket ? 1 : 0);
  }
}

TEST(WinSockFaults, FailedListenRaisesMappedNumberAndClosesNewSocket) {
  const OpeningFault cases[] = {
      {SocketCall::kSocket, ENFILE, 10024, false},
      {SocketCall::kBind, EADDRINUSE, 10048, true},
      {SocketCall::kBind, EACCES, 10013, true},
      {SocketCall::kListen, EOPNOTSUPP, 10045, true},
  };
  for (const OpeningFault& c : cases) {
    auto api = std::make_shared<FaultSocketApi>();
    WinSock socket(api);
    api->FailNext(c.call, c.error);
    EXPECT_EQ(RaisedNumber(socket, &WinSock::Listen), c.raised);
    EXPECT_EQ(socket.SocketHandle(), -1);
    EXPECT_EQ(api->Closes(), c.closes_socket ? 1 : 0);
  }
}

TEST(WinSockFaults, FailedAcceptReturnsNullAndGivesUpListeningSocket) {
  auto api = std::make_shared<FaultSocketApi>();
  WinSock server(api);
  ListenOnFreePort(server);
  int listening = server.SocketHandle();
  api->FailNext(SocketCall::kAccept, EMFILE);
  EXPECT_EQ(server.Accept(), nullptr);
  EXPECT_EQ(server.LastError(), 10024);
  EXPECT_EQ(server.SocketHandle(), -1);
  EXPECT_FALSE(IsOpen(listening));
}

TEST_F(FaultyConnection, ShortSendsAreContinuedUntilWholeArrayIsSent) {
  const Bytes data = Pattern(100000, 1);
  peer_.Receive(data.size()).Receive(3).Stall();
  Connect();
  api_->LimitEverySend(777);
  EXPECT_EQ(socket_.SendData(data), 0);
  EXPECT_GE(api_->Calls(SocketCall::kSend), 129);
  api_->LimitEverySend(0);
  api_->ShortSend(api_->Calls(SocketCall::kSend) + 1, 1);
  EXPECT_EQ(socket_.SendData(Bytes{4, 5, 6}), 0);
  socket_.Disconnect();
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();
  EXPECT_TRUE(peer_.Received(0) == data);
  EXPECT_EQ(peer_.Received(1), (Bytes{4, 5, 6}));
}

TEST_F(FaultyConnection, SendThatWouldBlockWaitsAndRetries) {
  peer_.Receive(4).Stall();
  Connect();
  api_->FailNext(SocketCall::kSend, EAGAIN);
  int polls = api_->Calls(SocketCall::kPoll);
  EXPECT_EQ(socket_.SendData(Bytes{1, 2, 3, 4}), 0);
  EXPECT_EQ(api_->Calls(SocketCall::kPoll), polls + 1);
  socket_.Disconnect();
  ASSERT_TRUE(peer_.Finish()) << peer_.Failure();
  EXPECT_EQ(peer_.Received(0), (Bytes{1, 2, 3, 4}));
}

// A peer that stops reading: once the system's buffers are full, a send with a time-out gives up
// with 10060 instead of waiting without limit; the same send without one is the default.
TEST_F(FaultyConnection, SendToAPeerThatStopsReadingEndsAtTheSendTimeOut) {
  peer_.Stall();
  Connect();
  socket_.SetSendTimeout(50);
  EXPECT_EQ(socket_.SendData(Pattern(64 << 20, 3)), sckTimedout);
  EXPECT_GE(api_->Calls(SocketCall::kPoll), 1);
}

struct DataFault {
  SocketCall call;
  int error;
  int32_t result;
};

TEST_F(FaultyConnection, FailedSendReturnsMappedNumber) {
  peer_.Stall();
  Connect();
  const DataFault cases[] = {
      {SocketCall::kSend, EPIPE, 10054},
      {SocketCall::kSend, ECONNRESET, 10054},
      {SocketCall::kSend, ENOBUFS, 10055},
      {SocketCall::kSend, ENOTCONN, 10057},
  };
  for (const DataFault& c : cases) {
    api_->FailNext(c.call, c.error);
    EXPECT_EQ(socket_.SendData(Bytes{1}), c.result);
    EXPECT_EQ(socket_.LastError(), c.result);
  }
  api_->ShortSend(api_->Calls(SocketCall::kSend) + 1, 1);
  api_->FailCall(SocketCall::kPoll, api_->Calls(SocketCall::kPoll) + 1, ENOMEM);
  EXPECT_EQ(socket_.SendData(Bytes{1, 2}), 10055);
}

TEST_F(FaultyConnection, FailedReceiveOrWaitReturnsMappedNumber) {
  peer_.Send({1, 2, 3, 4}).Stall();
  Connect();
  const DataFault cases[] = {
      {SocketCall::kRecv, ECONNRESET, 10054}, {SocketCall::kRecv, ECONNABORTED, 10053},
      {SocketCall::kRecv, ETIMEDOUT, 10060},  {SocketCall::kPoll, ENOMEM, 10055},
      {SocketCall::kPoll, EINVAL, 10022},
  };
  std::vector<uint8_t> buffer = {42};
  for (const DataFault& c : cases) {
    // The socket is waited on only when a receive would block first.
    if (c.call == SocketCall::kPoll) api_->FailNext(SocketCall::kRecv, EWOULDBLOCK);
    api_->FailNext(c.call, c.error);
    EXPECT_EQ(socket_.GetData(buffer, 2), c.result);
    EXPECT_EQ(buffer, Bytes(2, 0));
  }
  EXPECT_EQ(socket_.GetData(buffer, 4), 0);
  EXPECT_THAT(buffer, ElementsAre(1, 2, 3, 4));
}

TEST_F(FaultyConnection, InterruptedWaitIsResumed) {
  peer_.Send({5, 6}).Stall();
  Connect();
  const int polls = api_->Calls(SocketCall::kPoll);
  api_->FailNext(SocketCall::kRecv, EWOULDBLOCK);
  api_->FailNext(SocketCall::kPoll, EINTR);
  std::vector<uint8_t> buffer;
  EXPECT_EQ(socket_.GetData(buffer, 2), 0);
  EXPECT_THAT(buffer, ElementsAre(5, 6));
  EXPECT_EQ(api_->Calls(SocketCall::kPoll), polls + 2);
}

TEST_F(FaultyConnection, ReceiveThatWouldBlockEndsAsSuccessWithWhatCame) {
  peer_.Send({7, 8}).Stall();
  Connect();
  // A receive that would block, a wait that reports readiness, and again no data.
  const int recvs = api_->Calls(SocketCall::kRecv);
  api_->FailCall(SocketCall::kRecv, recvs + 1, EWOULDBLOCK);
  api_->FailCall(SocketCall::kRecv, recvs + 2, EWOULDBLOCK);
  std::vector<uint8_t> buffer;
  EXPECT_EQ(socket_.GetData(buffer, 2), 0);
  EXPECT_EQ(api_->Calls(SocketCall::kRecv), recvs + 2);
  EXPECT_EQ(socket_.LastError(), sckWouldBlock);
  EXPECT_EQ(buffer, Bytes(2, 0));
  EXPECT_EQ(socket_.GetData(buffer, 2), 0);
  EXPECT_THAT(buffer, ElementsAre(7, 8));
}

TEST_F(FaultyConnection, SmallReadsAreServedFromReadAheadAndLargeOnesContinueIt) {
  const Bytes data = Pattern(200000, 9);
  peer_.Send(data).Stall();
  Connect();
  socket_.SetReceiveTimeout(10000);
  socket_.SetReadAhead(true);
  Bytes got;
  std::vector<uint8_t> piece;
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(socket_.GetData(piece, 1500), 0);
    got.insert(got.end(), piece.begin(), piece.end());
  }
  // 20 requests, a receive only when the read-ahead buffer ran dry.
  EXPECT_LT(api_->Calls(SocketCall::kRecv), 20);
  ASSERT_EQ(socket_.GetData(piece, static_cast<int32_t>(data.size() - got.size())), 0);
  got.insert(got.end(), piece.begin(), piece.end());
  EXPECT_TRUE(got == data);
}

// Which calls one GetData makes: a receive first, a wait only when the receive would block or
// left the system's buffer empty before the request was complete.
TEST(WinSockReceiveOrder, HeldBytesAreTakenWithoutWaitingAndMissingOnesAreWaitedFor) {
  struct Case {
    Bytes held;
    int32_t size;
    int32_t result;
    int recvs;
    int polls;
  };
  const Case cases[] = {
      {{1, 2, 3}, 3, 0, 1, 0},
      {{}, 1, sckTimedout, 1, 1},
      {{1}, 2, sckTimedout, 1, 1},
  };
  for (const Case& c : cases) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    auto api = std::make_shared<FaultSocketApi>();
    WinSock socket(api);
    socket.Attach(fds[0]);
    socket.SetReceiveTimeout(20);
    ASSERT_EQ(::send(fds[1], c.held.data(), c.held.size(), 0),
              static_cast<ssize_t>(c.held.size()));
    std::vector<uint8_t> buffer;
    EXPECT_EQ(socket.GetData(buffer, c.size), c.result);
    if (c.result == 0) {
      EXPECT_EQ(buffer, c.held);
    }
    EXPECT_EQ(api->Calls(SocketCall::kRecv), c.recvs);
    EXPECT_EQ(api->Calls(SocketCall::kPoll), c.polls);
    ::close(fds[1]);
  }
}

// Only an owner that turned reading ahead on can lose bytes to a Detach (see WinSockReceive for
// the default, which loses none).
TEST_F(FaultyConnection, DetachDiscardsWhatAnOwnerLetItReadAhead) {
  peer_.Send({1, 2, 3, 4}).Stall();
  Connect();
  socket_.SetReadAhead(true);
  std::vector<uint8_t> buffer;
  ASSERT_EQ(socket_.GetData(buffer, 1), 0);
  int fd = socket_.Detach();
  socket_.Attach(fd);
  socket_.SetReceiveTimeout(100);
  EXPECT_EQ(socket_.GetData(buffer, 1), sckTimedout);
}

}  // namespace
}  // namespace pelmora
