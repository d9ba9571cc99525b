#include "pelmora/net/winsock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/net/internal/winsock_test_util.h"
#include "pelmora/testing/fault_socket_api.h"
#include "pelmora/testing/scripted_peer.h"

namespace pelmora {
namespace {

using net_internal::Bytes;
using net_internal::ConnectTo;
using net_internal::IsCloseOnExec;
using net_internal::ListenOnFreePort;
using net_internal::Pattern;
using ::testing::ElementsAre;
using testing::FaultSocketApi;
using testing::ScriptedPeer;
using testing::SocketCall;

constexpr char kInvalidArgText[] =
    "The argument passed to a function wan not in the correct format or in the specified range";

// Runs `action`, which must raise, and returns the raised error.
template <typename Action>
Error RaisedBy(Action action) {
  try {
    action();
  } catch (const Error& error) {
    return error;
  }
  ADD_FAILURE() << "nothing was raised";
  return Error(0, "");
}

struct DescriptionCase {
  int32_t number;
  const char* text;
};

TEST(WinSock, GetErrorDescriptionGivesOwnSystemAndFallbackTexts) {
  const DescriptionCase cases[] = {
      {0, "The operation completed successfully."},
      {380, "Invalid property value"},
      {40014, kInvalidArgText},
      {40006, "Error: 40006 (no description)"},
      {40026, "Error: 40026 (no description)"},
      {10061, "No connection could be made because the target machine actively refused it."},
      {10054, "An existing connection was forcibly closed by the remote host."},
      {11001, "No such host is known."},
      {10057,
       "A request to send or receive data was disallowed because the socket is not connected "
       "and (when sending on a datagram socket using a sendto call) no address was supplied."},
  };
  WinSock socket;
  for (const DescriptionCase& c : cases) {
    EXPECT_EQ(socket.GetErrorDescription(c.number), c.text) << c.number;
  }
}

TEST(WinSock, PublishesEveryEnumerationMemberByName) {
  auto constants = WinSockConstants();
  EXPECT_EQ(constants.size(), 61u);
  auto value_of = [&](std::string_view name) {
    for (const WinSockConstant& c : constants) {
      if (c.name == name) return c.value;
    }
    return -999999;
  };
  EXPECT_EQ(value_of("sckSuccess"), 0);
  EXPECT_EQ(value_of("sckNoData"), 11004);
  EXPECT_EQ(value_of("sckByteArray"), 1);
  EXPECT_EQ(value_of("SOL_SOCKET"), 65535);
  EXPECT_EQ(value_of("SO_DONTLINGER"), -129);
  EXPECT_EQ(value_of("SO_EXCLUSIVEADDRUSE"), -5);
  EXPECT_EQ(value_of("TCP_NODELAY"), 1);
}

TEST(WinSock, StartsWithoutSocketAndWithDefaults) {
  WinSock socket;
  char name[256] = {};
  ASSERT_EQ(::gethostname(name, sizeof(name) - 1), 0);
  EXPECT_EQ(socket.Version(), "2.2");
  EXPECT_EQ(socket.LocalHost(), name);
  EXPECT_FALSE(socket.LocalIP().empty());
  EXPECT_EQ(socket.SocketHandle(), -1);
  EXPECT_EQ(socket.protocol(), sckTCPProtocol);
  EXPECT_EQ(socket.ReceiveTimeout(), 0);
  EXPECT_EQ(socket.RemoteHost(), "");
  EXPECT_EQ(socket.RemoteIP(), "");
  EXPECT_EQ(socket.LocalPort(), 0);
  EXPECT_EQ(socket.RemotePort(), 0);
}

TEST(WinSock, LocalAddressFallsBackWhenNameCannotBeFetchedOrResolved) {
  auto api = std::make_shared<FaultSocketApi>();
  api->FailNext(SocketCall::kHostName, EFAULT);
  WinSock nameless(api);
  EXPECT_EQ(nameless.LocalHost(), "");
  EXPECT_EQ(nameless.LocalIP(), "127.0.0.1");

  api->SetHostName("host.invalid");
  WinSock unresolved(api);
  EXPECT_EQ(unresolved.LocalHost(), "host.invalid");
  EXPECT_EQ(unresolved.LocalIP(), "127.0.0.1");

  api->SetHostName("10.200.3.129");
  EXPECT_EQ(WinSock(api).LocalIP(), "10.200.3.129");
}

TEST(WinSock, PortsAreStoredAsGivenWithoutRangeTest) {
  WinSock socket;
  for (int32_t port : {0, -5, 70000, 65535}) {
    socket.SetLocalPort(port);
    socket.SetRemotePort(port);
    EXPECT_EQ(socket.LocalPort(), port);
    EXPECT_EQ(socket.RemotePort(), port);
  }
}

TEST(WinSock, BadPropertyValuesRaise380AndKeepOldValue) {
  WinSock socket;
  socket.SetProtocol(sckUDPProtocol);
  Error protocol = RaisedBy([&] { socket.SetProtocol(static_cast<SckProtocolConstants>(2)); });
  EXPECT_EQ(protocol.Number(), 380);
  EXPECT_EQ(protocol.Description(), "Invalid property value");
  EXPECT_EQ(protocol.Source(), "");
  EXPECT_EQ(socket.protocol(), sckUDPProtocol);
  EXPECT_EQ(socket.LastError(), 380);

  socket.SetReceiveTimeout(250);
  Error timeout = RaisedBy([&] { socket.SetReceiveTimeout(-1); });
  EXPECT_EQ(timeout.Number(), 380);
  EXPECT_EQ(timeout.Description(), "Invalid property value");
  EXPECT_EQ(socket.ReceiveTimeout(), 250);
  socket.SetReceiveTimeout(0);
  EXPECT_EQ(socket.ReceiveTimeout(), 0);
}

TEST(WinSock, GetDataArgumentTestRaises40014) {
  WinSock socket;
  WinSockBuffer buffer;
  for (auto [size, type] : {std::pair{0, 1}, std::pair{-3, 0}, std::pair{10, 2}}) {
    Error e =
        RaisedBy([&] { socket.GetData(buffer, size, static_cast<SckDataTypeConstants>(type)); });
    EXPECT_EQ(e.Number(), 40014);
    EXPECT_EQ(e.Description(), kInvalidArgText);
  }
}

TEST(WinSock, WithoutSocketDataCallsReturn10057AndLeaveBufferUntouched) {
  WinSock socket;
  std::vector<uint8_t> buffer = {7, 7};
  EXPECT_EQ(socket.GetData(buffer, 4), sckNotConnected);
  EXPECT_THAT(buffer, ElementsAre(7, 7));
  EXPECT_EQ(socket.SendData(buffer), sckNotConnected);
  EXPECT_EQ(socket.SendData({}), sckNotConnected);
  EXPECT_EQ(socket.LastError(), 10057);
}

TEST(WinSock, ConnectSendsAndReceivesExactBytes) {
  ScriptedPeer peer;
  peer.Receive(5).Send({'h', 'e', 'l', 'l', 'o', '!'}).Stall();
  peer.Start();
  WinSock socket;
  ConnectTo(socket, peer.Port());
  EXPECT_EQ(socket.RemoteIP(), "127.0.0.1");
  EXPECT_TRUE(IsCloseOnExec(socket.SocketHandle()));
  EXPECT_EQ(socket.SendData(Bytes{1, 2, 3, 4, 5}), 0);
  std::string text;
  EXPECT_EQ(socket.GetData(text, 5), 0);
  EXPECT_EQ(text, "hello");
  std::vector<uint8_t> rest;
  EXPECT_EQ(socket.GetData(rest, 1), 0);
  EXPECT_THAT(rest, ElementsAre('!'));
  socket.Disconnect();
  EXPECT_EQ(socket.SocketHandle(), -1);
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  EXPECT_EQ(peer.Received(0), (Bytes{1, 2, 3, 4, 5}));
}

TEST(WinSock, ConnectResolvesHostNames) {
  ScriptedPeer peer;
  peer.Stall();
  peer.Start();
  WinSock socket;
  socket.SetRemoteHost("localhost");
  socket.SetRemotePort(peer.Port());
  socket.Connect();
  EXPECT_EQ(socket.RemoteIP(), "127.0.0.1");
}

TEST(WinSock, ConnectToClosedPortRaises10061AndLeavesNoSocket) {
  WinSock listener;
  uint16_t port = ListenOnFreePort(listener);
  listener.Disconnect();
  WinSock socket;
  Error e = RaisedBy([&] { ConnectTo(socket, port); });
  EXPECT_EQ(e.Number(), 10061);
  EXPECT_EQ(e.Description(),
            "No connection could be made because the target machine actively refused it.");
  EXPECT_EQ(socket.SocketHandle(), -1);
  EXPECT_EQ(socket.LastError(), 10061);
}

TEST(WinSock, ConnectToUnresolvableHostRaises10049) {
  WinSock socket;
  for (const char* host : {"", "no-such-host.invalid", "255.255.255.255"}) {
    socket.SetRemoteHost(host);
    Error e = RaisedBy([&] { socket.Connect(); });
    EXPECT_EQ(e.Number(), 10049) << host;
    EXPECT_EQ(e.Description(), "The requested address is not valid in its context.");
    EXPECT_EQ(socket.SocketHandle(), -1);
  }
}

TEST(WinSock, DatagramProtocolIsRefusedWhenOpening) {
  WinSock socket;
  socket.SetProtocol(sckUDPProtocol);
  socket.SetRemoteHost("127.0.0.1");
  socket.SetRemotePort(9);
  Error connect = RaisedBy([&] { socket.Connect(); });
  EXPECT_EQ(connect.Number(), 10043);
  EXPECT_EQ(connect.Description(),
            "The requested protocol has not been configured into the system, or no "
            "implementation for it exists.");
  EXPECT_EQ(socket.RemoteIP(), "127.0.0.1");
  EXPECT_EQ(RaisedBy([&] { socket.Listen(); }).Number(), 10043);
  EXPECT_EQ(socket.SocketHandle(), -1);
}

TEST(WinSock, GetDataTimesOutWithNothingReceived) {
  ScriptedPeer peer;
  peer.Stall();
  peer.Start();
  WinSock socket;
  ConnectTo(socket, peer.Port());
  socket.SetReceiveTimeout(300);
  auto start = std::chrono::steady_clock::now();
  std::vector<uint8_t> buffer;
  EXPECT_EQ(socket.GetData(buffer, 8), sckTimedout);
  auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(buffer, Bytes(8, 0));
  EXPECT_EQ(socket.LastError(), 10060);
  EXPECT_GE(elapsed, std::chrono::milliseconds(290));
  EXPECT_LT(elapsed, std::chrono::seconds(5));
}

TEST(WinSock, GetDataDeliversBytesThatCameBeforeTimeOut) {
  ScriptedPeer peer;
  peer.Send({1, 2, 3}).Stall();
  peer.Start();
  WinSock socket;
  ConnectTo(socket, peer.Port());
  socket.SetReceiveTimeout(200);
  std::vector<uint8_t> buffer;
  EXPECT_EQ(socket.GetData(buffer, 10), sckTimedout);
  EXPECT_THAT(buffer, ElementsAre(1, 2, 3));
}

TEST(WinSock, GetDataReturnsWhatCameBeforePeerClosed) {
  ScriptedPeer peer;
  peer.Send({'a', 'b', 'c'}).Close();
  peer.Start();
  WinSock socket;
  ConnectTo(socket, peer.Port());
  std::vector<uint8_t> buffer;
  EXPECT_EQ(socket.GetData(buffer, 10), 0);
  EXPECT_THAT(buffer, ElementsAre('a', 'b', 'c'));
  EXPECT_EQ(socket.GetData(buffer, 4), 0);
  EXPECT_EQ(buffer, Bytes(4, 0));
}

TEST(WinSock, PeerClosingWithoutDataGivesSizeZeroBytes) {
  ScriptedPeer peer;
  peer.Close();
  peer.Start();
  WinSock socket;
  ConnectTo(socket, peer.Port());
  std::string text = "old";
  EXPECT_EQ(socket.GetData(text, 6), 0);
  EXPECT_EQ(text, std::string(6, '\0'));
  WinSockBuffer any;
  EXPECT_EQ(socket.GetData(any, 3, sckByteArray), 0);
  EXPECT_EQ(std::get<std::vector<uint8_t>>(any), Bytes(3, 0));
}

TEST(WinSock, PeerResetMidGetDataGives10054AfterBytesThatCame) {
  ScriptedPeer peer;
  peer.Send({9, 8, 7, 6, 5}).Close(/*reset=*/true);
  peer.Start();
  WinSock socket;
  ConnectTo(socket, peer.Port());
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  std::vector<uint8_t> buffer;
  int32_t result = socket.GetData(buffer, 10);
  EXPECT_EQ(result, sckConnectionReset);
  EXPECT_EQ(socket.GetErrorDescription(result),
            "An existing connection was forcibly closed by the remote host.");
  // The reset may overtake the bytes; either they came first or nothing did.
  if (buffer.size() == 5) {
    EXPECT_THAT(buffer, ElementsAre(9, 8, 7, 6, 5));
  } else {
    EXPECT_EQ(buffer, Bytes(10, 0));
  }
  EXPECT_EQ(socket.SendData(Bytes{1}), sckConnectionReset);
}

TEST(WinSock, StringDataIsReadAsAnsiText) {
  ScriptedPeer peer;
  peer.Send({'G', 'r', 0xFC, 0xDF, 'e'}).Stall();
  peer.Start();
  WinSock socket;
  ConnectTo(socket, peer.Port());
  WinSockBuffer any;
  EXPECT_EQ(socket.GetData(any, 5), 0);
  EXPECT_EQ(std::get<std::string>(any),
            "Gr\xC3\xBC\xC3\x9F"
            "e");
}

TEST(WinSock, LargeTransfersArriveWholeBothWays) {
  constexpr size_t kSize = 8 << 20;
  const Bytes outgoing = Pattern(kSize, 3);
  ScriptedPeer peer;
  peer.SetStepTimeout(std::chrono::seconds(30));
  peer.Receive(kSize).Send(Pattern(kSize, 7)).Stall();
  peer.Start();
  WinSock socket;
  ConnectTo(socket, peer.Port());
  socket.SetReceiveTimeout(20000);
  socket.SetReadAhead(true);
  EXPECT_EQ(socket.SendData(outgoing), 0);
  // Half in one request, the rest in 1500-byte pieces through the read-ahead buffer.
  std::vector<uint8_t> first;
  ASSERT_EQ(socket.GetData(first, kSize / 2), 0);
  Bytes incoming = first;
  std::vector<uint8_t> piece;
  for (int i = 0; i < 4000 && incoming.size() < kSize; ++i) {
    int32_t want = static_cast<int32_t>(std::min<size_t>(1500, kSize - incoming.size()));
    ASSERT_EQ(socket.GetData(piece, want), 0);
    ASSERT_EQ(piece.size(), static_cast<size_t>(want));
    incoming.insert(incoming.end(), piece.begin(), piece.end());
  }
  EXPECT_TRUE(incoming == Pattern(kSize, 7));
  socket.Disconnect();
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  EXPECT_TRUE(peer.Received(0) == outgoing);
}

}  // namespace
}  // namespace pelmora
