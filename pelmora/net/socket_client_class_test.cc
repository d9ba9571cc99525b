#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/common/variant.h"
#include "pelmora/testing/raised_error.h"
#include "pelmora/testing/scripted_peer.h"

namespace pelmora {
namespace {

using automation::CallKind;
using automation::CreateObject;
using automation::GetProperty;
using automation::SetProperty;
using Bytes = std::vector<uint8_t>;

Variant Call(const ObjectRef& object, std::string_view name, std::vector<Variant>& args) {
  return object->Invoke(name, CallKind::kMethod, args);
}

Bytes Block(std::string_view text) {
  Bytes block(512, 0);
  std::copy(text.begin(), text.end(), block.begin());
  return block;
}

TEST(SocketClientClass, ConversesThroughLateBinding) {
  internal::ScratchFolder scratch;
  internal::ScopedEnv home("PELMORA_HOME", scratch.Path() + "/lib");
  testing::ScriptedPeer peer;
  peer.Send(Block("HELLO")).Receive(512).Send(Block("OK")).Receive(512).Send(Block("BYE")).Close();
  peer.Start();
  ObjectRef client = CreateObject("pelmora.socketclient");
  EXPECT_EQ(GetProperty(client, "timeout"), Variant(2147483640));
  SetProperty(client, "Timeout", Variant(30));
  EXPECT_EQ(GetProperty(client, "timeout"), Variant(30));

  std::vector<Variant> connect{Variant("127.0.0.1"), Variant(static_cast<int32_t>(peer.Port()))};
  EXPECT_EQ(Call(client, "Connect", connect), Variant(true));
  std::vector<Variant> none;
  EXPECT_EQ(Call(client, "getRemoteIP", none), Variant("127.0.0.1"));
  std::vector<Variant> exchange{Variant("AB"), Variant()};
  EXPECT_EQ(Call(client, "SendMessageWithReply", exchange), Variant(true));
  EXPECT_EQ(exchange[1], Variant("OK" + std::string(510, '\0')));
  std::vector<Variant> send{Variant(3), Variant(Bytes{'x', 'y', 'z'})};
  EXPECT_EQ(Call(client, "SendMessage", send), Variant(true));
  std::vector<Variant> receive{Variant(512), Variant()};
  EXPECT_EQ(Call(client, "RecvMessage", receive), Variant(true));
  EXPECT_EQ(receive[1], Variant(Block("BYE")));
  std::vector<Variant> too_big{Variant(513), Variant(Bytes{})};
  EXPECT_EQ(Call(client, "SendMessage", too_big), Variant(false));
  EXPECT_EQ(GetProperty(client, "ErrCode"), Variant(8004));
  EXPECT_EQ(GetProperty(client, "ErrDescription"), Variant("Invalid Data Size"));
  Call(client, "Disconnect", none);
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  EXPECT_EQ(peer.Received(1), Block("xyz"));
}

TEST(SocketClientClass, RaisesWithTheClassAsSource) {
  ObjectRef client = CreateObject("Pelmora.SocketClient");
  std::vector<Variant> args{Variant(0), Variant()};
  Error e = testing::RaisedError([&] { Call(client, "RecvMessage", args); });
  EXPECT_EQ(e.Number(), 40014);
  EXPECT_EQ(e.Source(), "Pelmora.SocketClient");
}

}  // namespace
}  // namespace pelmora
