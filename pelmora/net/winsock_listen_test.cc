// WinSock as a server, and handing sockets between objects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/net/internal/winsock_test_util.h"
#include "pelmora/net/winsock.h"
#include "pelmora/testing/fault_socket_api.h"

namespace pelmora {
namespace {

using net_internal::Bytes;
using net_internal::ConnectTo;
using net_internal::IsCloseOnExec;
using net_internal::IsOpen;
using net_internal::ListenOnFreePort;
using ::testing::ElementsAre;
using testing::FaultSocketApi;

TEST(WinSockServer, ListenAndAcceptGiveConnectedObject) {
  WinSock server;
  uint16_t port = ListenOnFreePort(server);
  ASSERT_NE(port, 0);
  EXPECT_TRUE(IsCloseOnExec(server.SocketHandle()));
  WinSock client;
  ConnectTo(client, port);
  std::unique_ptr<WinSock> accepted = server.Accept();
  ASSERT_NE(accepted, nullptr);
  EXPECT_NE(accepted->SocketHandle(), -1);
  EXPECT_TRUE(IsCloseOnExec(accepted->SocketHandle()));
  EXPECT_EQ(accepted->Version(), "2.2");
  EXPECT_EQ(server.LastError(), 0);
  EXPECT_EQ(client.SendData(Bytes{1, 2}), 0);
  std::vector<uint8_t> got;
  EXPECT_EQ(accepted->GetData(got, 2), 0);
  EXPECT_THAT(got, ElementsAre(1, 2));
  EXPECT_EQ(accepted->SendData(Bytes{3}), 0);
  EXPECT_EQ(client.GetData(got, 1), 0);
  EXPECT_THAT(got, ElementsAre(3));
}

TEST(WinSockServer, ListenOnBusyPortRaises10048) {
  WinSock first;
  uint16_t port = ListenOnFreePort(first);
  WinSock second;
  second.SetLocalPort(port);
  try {
    second.Listen();
    ADD_FAILURE() << "Listen on a busy port succeeded";
  } catch (const Error& e) {
    EXPECT_EQ(e.Number(), 10048);
    EXPECT_EQ(e.Description(),
              "Only one usage of each socket address (protocol/network address/port) is "
              "normally permitted.");
  }
  EXPECT_EQ(second.SocketHandle(), -1);
}

TEST(WinSockServer, AcceptWithoutListeningSocketReturnsNull) {
  WinSock socket;
  EXPECT_EQ(socket.Accept(), nullptr);
  EXPECT_EQ(socket.LastError(), sckNotSocket);
}

TEST(WinSockServer, DetachLeavesSocketOpenAfterObjectIsGone) {
  int fd = -1;
  {
    WinSock socket;
    ListenOnFreePort(socket);
    fd = socket.Detach();
    EXPECT_EQ(socket.SocketHandle(), -1);
  }
  EXPECT_TRUE(IsOpen(fd));
  WinSock adopter;
  adopter.Attach(fd);
  EXPECT_EQ(adopter.SocketHandle(), fd);
  adopter.Disconnect();
  EXPECT_FALSE(IsOpen(fd));
}

TEST(WinSockServer, AttachClosesHeldSocketFirst) {
  auto api = std::make_shared<FaultSocketApi>();
  WinSock socket(api);
  ListenOnFreePort(socket);
  int held = socket.SocketHandle();
  int closes = api->Closes();
  socket.Attach(-1);
  EXPECT_EQ(api->Closes(), closes + 1);
  EXPECT_FALSE(IsOpen(held));
  EXPECT_EQ(socket.SocketHandle(), -1);
}

TEST(WinSockServer, MovingHandsTheSocketOver) {
  WinSock socket;
  ListenOnFreePort(socket);
  int fd = socket.SocketHandle();
  WinSock moved(std::move(socket));
  EXPECT_EQ(moved.SocketHandle(), fd);
  EXPECT_EQ(socket.SocketHandle(), -1);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(IsOpen(fd));
}

}  // namespace
}  // namespace pelmora
