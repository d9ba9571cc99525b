// Late binding of the administration classes: "Pelmora.AdminClient" and "Pelmora.RCFSO" driven by
// name against a scripted peer, with RCFSO's events delivered to a connected sink.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pelmora/admin/internal/built_in_secrets.h"
#include "pelmora/automation/dispatch.h"
#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "pelmora/testing/admin_peer.h"

namespace pelmora::admin {
namespace {

using automation::CallByName;
using automation::CallKind;
using automation::CreateObject;
using automation::GetProperty;
using automation::SetProperty;
using pelmora::testing::Answer;
using pelmora::testing::Bytes;
using pelmora::testing::ExpectLogin;
using pelmora::testing::ExpectRequest;
using pelmora::testing::OutputData;
using pelmora::testing::ScriptedPeer;
using pelmora::testing::StatusData;

TEST(AdminClasses, AdminClientRunsARemoteCommandByName) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(
      {OutputData("Windows IP Configuration\r\n"), OutputData("done\r\n"), StatusData(9000)}));
  peer.Start();
  ObjectRef client = CreateObject("pelmora.adminclient");
  SetProperty(client, "ServicePort", Variant(int32_t{peer.Port()}));
  std::vector<Variant> host = {Variant("127.0.0.1")};
  EXPECT_TRUE(CallByName(client, "Connect", CallKind::kMethod, host).ToBool());
  std::vector<Variant> args = {Variant("ipconfig"), Variant(int32_t{5000}),
                               Variant(internal::BuiltInAccessCode()), Variant(""),
                               Variant(int32_t{-7})};
  EXPECT_TRUE(CallByName(client, "RemoteCommandCall", CallKind::kMethod, args).ToBool());
  EXPECT_EQ(args[3].ToString(), "Windows IP Configuration\r\ndone\r\n");
  EXPECT_EQ(args[4].ToLong(), -7);
  EXPECT_EQ(GetProperty(client, "ErrNumber").ToLong(), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Failure();
}

TEST(AdminClasses, AdminClientRaisesTheRootPathErrors) {
  ObjectRef client = CreateObject("Pelmora.AdminClient");
  SetProperty(client, "Product", Variant("abc"));
  try {
    GetProperty(client, "RemoteAppRootPath");
    ADD_FAILURE() << "no error";
  } catch (const Error& e) {
    EXPECT_EQ(e.Number(), 9000);
    EXPECT_EQ(e.Description(), "Invalid product code:abc");
  }
}

TEST(AdminClasses, RCFSOEventsReachAConnectedSink) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer({OutputData("a"), OutputData("b"), StatusData(9000)}));
  ExpectRequest(peer).ReplyWith(Answer(pelmora::testing::ResultData(true)));
  peer.Start();
  ObjectRef fso = CreateObject("Pelmora.RCFSO");
  std::vector<std::string> seen;
  fso->ConnectEvents(
      automation::MakeEventSink([&seen](std::string_view name, std::span<Variant> event_args) {
        seen.push_back(std::string(name) + ":" + event_args[0].ToString());
      }));
  std::vector<Variant> login = {Variant("127.0.0.1"), Variant(int32_t{peer.Port()}), Variant("u"),
                                Variant("p"), Variant(true)};
  EXPECT_TRUE(CallByName(fso, "Connect", CallKind::kMethod, login).ToBool());
  std::vector<Variant> command = {Variant("dir"), Variant(int32_t{100})};
  EXPECT_TRUE(CallByName(fso, "SyncCreateProcess", CallKind::kMethod, command).ToBool());
  EXPECT_THAT(seen, ::testing::ElementsAre("CommandOutput:a", "CommandOutput:b"));
  // A raw flag of 1 is not True: it goes out as "FALSE".
  std::vector<Variant> copy = {Variant("a"), Variant("b"), Variant(int16_t{1})};
  EXPECT_TRUE(CallByName(fso, "CopyRemoteFile", CallKind::kMethod, copy).ToBool());
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  const Bytes block = peer.Received(4);
  EXPECT_EQ(block[2 + 4 + 4 + 4 + 4 + 4], 'F');
  EXPECT_EQ(GetProperty(fso, "ErrCode").ToLong(), 0);
}


TEST(AdminClasses, RCFSOFileModesByName) {
  ScriptedPeer peer;
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(pelmora::testing::ResultData(true, 0750)));
  ExpectRequest(peer).ReplyWith(Answer(pelmora::testing::ResultData(true)));
  ExpectRequest(peer).ReplyWith(Answer(pelmora::testing::ResultData(false, 2, "missing")));
  peer.Start();
  ObjectRef fso = CreateObject("Pelmora.RCFSO");
  std::vector<Variant> login = {Variant("127.0.0.1"), Variant(int32_t{peer.Port()}), Variant("u"),
                                Variant("p"), Variant(true)};
  ASSERT_TRUE(CallByName(fso, "Connect", CallKind::kMethod, login).ToBool());
  std::vector<Variant> get = {Variant("C:\\a.sh"), Variant(int32_t{-1})};
  EXPECT_TRUE(CallByName(fso, "getfilemode", CallKind::kMethod, get).ToBool());
  EXPECT_EQ(get[1].ToLong(), 0750) << "the bits come back through the by-reference argument";
  std::vector<Variant> set = {Variant("C:\\a.sh"), Variant(int32_t{0755})};
  EXPECT_TRUE(CallByName(fso, "SetFileMode", CallKind::kMethod, set).ToBool());
  std::vector<Variant> missing = {Variant("C:\\none"), Variant(int32_t{0644})};
  EXPECT_FALSE(CallByName(fso, "SetFileMode", CallKind::kMethod, missing).ToBool());
  EXPECT_EQ(GetProperty(fso, "ErrCode").ToLong(), 2);
  // Setuid is refused before anything is sent.
  std::vector<Variant> setuid = {Variant("C:\\a.sh"), Variant(int32_t{04755})};
  EXPECT_FALSE(CallByName(fso, "SetFileMode", CallKind::kMethod, setuid).ToBool());
  EXPECT_EQ(GetProperty(fso, "ErrCode").ToLong(), 87);
  ASSERT_TRUE(peer.Finish()) << peer.Failure();
  const Bytes block = peer.Received(4);  // login 0, get mode 1 and 2, set mode 3 and 4
  ASSERT_GE(block.size(), 30u);
  EXPECT_EQ(block[0], 43);
  EXPECT_EQ(Bytes(block.begin() + 26, block.begin() + 30), (Bytes{0xED, 0x01, 0, 0})) << "0755";
}

}  // namespace
}  // namespace pelmora::admin
