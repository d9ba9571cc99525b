#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "pelmora/common/variant.h"
#include "pelmora/testing/raised_error.h"
#include "pelmora/testing/scripted_peer.h"

namespace pelmora {
namespace {

using automation::CallKind;
using automation::CreateObject;
using automation::GetProperty;
using automation::SetProperty;
using ::testing::ElementsAre;
using Bytes = std::vector<uint8_t>;

Variant Call(const ObjectRef& object, std::string_view name, std::vector<Variant>& args) {
  return object->Invoke(name, CallKind::kMethod, args);
}

Error CallError(const ObjectRef& object, std::string_view name, CallKind kind,
                std::vector<Variant> args) {
  return pelmora::testing::RaisedError([&] { object->Invoke(name, kind, args); });
}

ObjectRef ConnectedTo(uint16_t port) {
  ObjectRef socket = CreateObject("pelmora.winsock");
  SetProperty(socket, "RemoteHost", Variant("127.0.0.1"));
  SetProperty(socket, "RemotePort", Variant(static_cast<int32_t>(port)));
  SetProperty(socket, "ReceiveTimeout", Variant(5000));
  std::vector<Variant> none;
  Call(socket, "Connect", none);
  return socket;
}

TEST(WinSockClass, ConnectsSendsAndReceivesThroughLateBinding) {
  testing::ScriptedPeer peer;
  peer.Receive(3).Send({'o', 'k', '!', 0x01, 0x02}).Close();
  peer.Start();
  ObjectRef socket = ConnectedTo(peer.Port());
  EXPECT_EQ(GetProperty(socket, "RemoteIP"), Variant("127.0.0.1"));

  std::vector<Variant> send{Variant(Bytes{'a', 'b', 'c'})};
  EXPECT_EQ(Call(socket, "SendData", send), Variant(0));
  std::vector<Variant> text{Variant(), Variant(3)};
  EXPECT_EQ(Call(socket, "GetData", text), Variant(0));
  EXPECT_EQ(text[0], Variant("ok!"));  // sckString by default
  std::vector<Variant> bytes{Variant(), Variant(10), Variant(1)};
  EXPECT_EQ(Call(socket, "getdata", bytes), Variant(0));
  EXPECT_EQ(bytes[0], Variant(Bytes{0x01, 0x02}));  // shortened to what came before the close

  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  EXPECT_EQ(peer.Received(0), (Bytes{'a', 'b', 'c'}));
}

TEST(WinSockClass, RaisesWithTheClassAsSource) {
  ObjectRef socket = CreateObject("Pelmora.WinSock");
  Error e = CallError(socket, "protocol", CallKind::kPropertyLet, {Variant(2)});
  EXPECT_EQ(e.Number(), 380);
  EXPECT_EQ(e.Description(), "Invalid property value");
  EXPECT_EQ(e.Source(), "Pelmora.WinSock");
  EXPECT_EQ(GetProperty(socket, "Protocol"), Variant(0));

  e = CallError(socket, "GetData", CallKind::kMethod, {Variant(), Variant(0)});
  EXPECT_EQ(e.Number(), 40014);
  EXPECT_EQ(e.Description(),
            "The argument passed to a function wan not in the correct format or in the specified "
            "range");
  EXPECT_EQ(CallError(socket, "SendData", CallKind::kMethod, {Variant("text")}).Number(), 13);
  EXPECT_EQ(CallError(socket, "Connect", CallKind::kMethod, {Variant(1)}).Number(), 450);
}

TEST(WinSockClass, GetDataWithoutSocketLeavesTheBufferAlone) {
  ObjectRef socket = CreateObject("Pelmora.WinSock");
  std::vector<Variant> args{Variant("kept"), Variant(4)};
  EXPECT_EQ(Call(socket, "GetData", args), Variant(10057));
  EXPECT_EQ(args[0], Variant("kept"));
  std::vector<Variant> code{Variant("40006")};
  EXPECT_EQ(Call(socket, "GetErrorDescription", code), Variant("Error: 40006 (no description)"));
}

TEST(WinSockClass, AcceptReturnsANewWinSockObject) {
  ObjectRef server = CreateObject("Pelmora.WinSock");
  SetProperty(server, "LocalPort", Variant(0));
  std::vector<Variant> none;
  Call(server, "Listen", none);
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  int fd = GetProperty(server, "SocketHandle").ToLong();
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);

  ObjectRef client = ConnectedTo(ntohs(address.sin_port));  // completes from the backlog
  ObjectRef accepted = Call(server, "Accept", none).ToObject();
  ASSERT_NE(accepted, nullptr);
  EXPECT_EQ(accepted->ProgId(), "Pelmora.WinSock");
  std::vector<Variant> send{Variant(VariantArray{0, {Variant(104), Variant(105)}})};
  EXPECT_EQ(Call(client, "SendData", send), Variant(0));
  SetProperty(accepted, "ReceiveTimeout", Variant(5000));
  std::vector<Variant> got{Variant(), Variant(2)};
  EXPECT_EQ(Call(accepted, "GetData", got), Variant(0));
  EXPECT_EQ(got[0], Variant("hi"));
}

TEST(WinSockClass, SocketOptionsUseByReferenceValues) {
  testing::ScriptedPeer peer;
  peer.Stall();
  peer.Start();
  ObjectRef socket = ConnectedTo(peer.Port());
  std::vector<Variant> set{Variant(65535), Variant(8), Variant(1)};  // SOL_SOCKET, SO_KEEPALIVE
  EXPECT_EQ(Call(socket, "SetSocketOption", set), Variant(true));
  std::vector<Variant> get{Variant(65535), Variant(8), Variant()};
  EXPECT_EQ(Call(socket, "GetSocketOption", get), Variant(true));
  EXPECT_EQ(get[2], Variant(1));
  std::vector<Variant> none;
  Call(socket, "Disconnect", none);
  EXPECT_EQ(GetProperty(socket, "SocketHandle"), Variant(-1));
  EXPECT_TRUE(peer.Finish()) << peer.Failure();
}

TEST(WinSockClass, ListsItsMembersInInterfaceOrder) {
  EXPECT_THAT(automation::ListClasses(), ::testing::Contains("Pelmora.WinSock"));
  std::vector<std::string> names = CreateObject("Pelmora.WinSock")->MemberNames();
  EXPECT_EQ(names.size(), 21u);
  EXPECT_THAT(std::vector<std::string>(names.begin(), names.begin() + 3),
              ElementsAre("Version", "LocalIP", "LocalHost"));
}

}  // namespace
}  // namespace pelmora
