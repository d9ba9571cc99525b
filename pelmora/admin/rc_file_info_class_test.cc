// Late binding of RCFileInfo and of the listing collection: "Pelmora.RCFileInfo" driven by name,
// and RCFSO's GetFolderFiles / GetFileInfo called by name against a scripted service.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
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
using pelmora::testing::ScriptedPeer;
using pelmora::testing::SizeData;

FileInfoRecord Record(std::string name) {
  FileInfoRecord record;
  record.size = 7;
  record.name = std::move(name);
  return record;
}

// A late-bound RCFSO logged in to `peer`.
ObjectRef ConnectedFso(ScriptedPeer& peer) {
  peer.Start();
  ObjectRef fso = CreateObject("Pelmora.RCFSO");
  std::vector<Variant> login = {Variant("127.0.0.1"), Variant(int32_t{peer.Port()}), Variant("u"),
                                Variant("p"), Variant(true)};
  EXPECT_TRUE(CallByName(fso, "Connect", CallKind::kMethod, login).ToBool());
  return fso;
}

TEST(RCFileInfoClass, EveryPropertyIsReadWriteByName) {
  ObjectRef info = CreateObject("pelmora.rcfileinfo");
  const Date when = *Date::FromCivil({2009, 3, 14, 8, 5, 9});
  const std::vector<std::pair<const char*, Variant>> values = {
      {"FileAttribues", Variant(int32_t{0x21})}, {"CreationTime", Variant(when)},
      {"LastAccessTime", Variant(when)},         {"LastWriteTime", Variant(when)},
      {"FileSize", Variant(int32_t{705032704})}, {"FileName", Variant("a.txt")},
      {"FullPathName", Variant("C:\\d\\a.txt")}, {"ParentPath", Variant("C:\\d")}};
  for (const auto& [name, value] : values) {
    SetProperty(info, name, value);
    EXPECT_EQ(GetProperty(info, name).ToString(), value.ToString()) << name;
  }
}

TEST(RCFileInfoClass, GetFolderFilesIsWalkedWithCountAndItem) {
  ScriptedPeer peer;
  const Bytes listing = BuildListing(std::vector<FileInfoRecord>{Record("a"), Record("b")});
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(SizeData(static_cast<int32_t>(listing.size()))));
  peer.Send(listing);
  ObjectRef fso = ConnectedFso(peer);
  std::vector<Variant> folder = {Variant("C:\\d")};
  ObjectRef files = CallByName(fso, "GetFolderFiles", CallKind::kMethod, folder).ToObject();
  ASSERT_EQ(GetProperty(files, "Count").ToLong(), 2);
  std::vector<std::string> names;
  for (int32_t i = 1; i <= 2; ++i) {
    std::vector<Variant> index = {Variant(i)};
    ObjectRef item = CallByName(files, "Item", CallKind::kMethod, index).ToObject();
    names.push_back(GetProperty(item, "FileName").ToString());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"a", "b"}));
  std::vector<Variant> past = {Variant(int32_t{3})};
  try {
    CallByName(files, "Item", CallKind::kMethod, past);
    ADD_FAILURE() << "no error";
  } catch (const Error& e) {
    EXPECT_EQ(e.Number(), 9);
  }
  EXPECT_TRUE(peer.Finish()) << peer.Failure();
}

TEST(RCFileInfoClass, GetFileInfoFillsItsSecondArgumentOnlyOnSuccess) {
  ScriptedPeer peer;
  Bytes record = BuildFileInfoRecord(Record("x.ini"));
  const auto size = static_cast<int32_t>(record.size());
  record.resize(kPacketSize);
  ExpectLogin(peer, true);
  ExpectRequest(peer).ReplyWith(Answer(SizeData(size))).Send(record);
  ExpectRequest(peer).ReplyWith(Answer(SizeData(0)));
  ObjectRef fso = ConnectedFso(peer);
  std::vector<Variant> args = {Variant("C:\\x.ini"), Variant()};
  EXPECT_TRUE(CallByName(fso, "GetFileInfo", CallKind::kMethod, args).ToBool());
  EXPECT_EQ(GetProperty(args[1].ToObject(), "FileName").ToString(), "x.ini");
  EXPECT_EQ(GetProperty(args[1].ToObject(), "FileSize").ToLong(), 7);
  std::vector<Variant> missing = {Variant("C:\\y"), Variant(int32_t{5})};
  EXPECT_FALSE(CallByName(fso, "GetFileInfo", CallKind::kMethod, missing).ToBool());
  EXPECT_EQ(missing[1].ToLong(), 5);
  EXPECT_EQ(GetProperty(fso, "ErrCode").ToLong(), 8118);
  std::vector<Variant> none;
  EXPECT_EQ(CallByName(fso, "getRemoteIP", CallKind::kMethod, none).ToString(), "127.0.0.1");
  EXPECT_TRUE(peer.Finish()) << peer.Failure();
}

}  // namespace
}  // namespace pelmora::admin
