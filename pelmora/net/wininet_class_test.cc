// The WinINet object through late binding: "Pelmora.WinINet", its members and its events.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "pelmora/automation/event_source.h"
#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "pelmora/common/variant.h"
#include "pelmora/testing/raised_error.h"
#include "pelmora/testing/web_server.h"

namespace pelmora {
namespace {

using automation::CallByName;
using automation::CallKind;
using automation::CreateObject;
using automation::GetProperty;
using automation::SetProperty;

Variant Call(const ObjectRef& o, std::string_view name, std::vector<Variant>& args) {
  return CallByName(o, name, CallKind::kMethod, args);
}

TEST(WinINetClass, PropertiesHaveTheirDefaultsAndChecks) {
  ObjectRef inet = CreateObject("pelmora.wininet");
  EXPECT_EQ(GetProperty(inet, "ChunkSize"), Variant(int32_t{512000}));
  EXPECT_EQ(GetProperty(inet, "RemotePort"), Variant(int16_t{80}));
  EXPECT_EQ(GetProperty(inet, "NoCookiesDialog"), Variant(true));
  EXPECT_EQ(GetProperty(inet, "URL"), Variant("http://"));
  Error bad = testing::RaisedError([&] { SetProperty(inet, "protocol", Variant(int32_t{7})); });
  EXPECT_EQ(bad.Number(), 380);
  SetProperty(inet, "URL", Variant("https://h:40000/x"));
  EXPECT_EQ(GetProperty(inet, "protocol"), Variant(int32_t{5}));
  EXPECT_EQ(testing::RaisedError([&] { GetProperty(inet, "RemotePort"); }).Number(), 6);
}

TEST(WinINetClass, TransfersRaiseReceivingAndHandlersMayCancel) {
  testing::WebServer web;
  web.WriteDocument("three.bin", std::string(3000, 'x'));
  ObjectRef inet = CreateObject("Pelmora.WinINet");
  std::vector<std::string> seen;
  automation::Dispatch* raw = inet.get();  // the sink must not own its object
  inet->ConnectEvents(automation::MakeEventSink([&](std::string_view name, std::span<Variant> a) {
    seen.push_back(std::string(name) + ":" + a[0].ToString());
    std::vector<Variant> none;
    if (seen.size() == 2) raw->Invoke("Cancel", CallKind::kMethod, none);
  }));
  SetProperty(inet, "ChunkSize", Variant(int32_t{1000}));
  std::vector<Variant> open{Variant(web.HttpUrl("/three.bin")), Variant(int32_t{1})};
  Variant body = Call(inet, "OpenURL", open);
  EXPECT_EQ(body.ToBytes().size(), 2000u);
  EXPECT_THAT(seen, ::testing::ElementsAre("Receiving:1000", "Receiving:2000"));

  std::vector<Variant> execute{Variant(web.HttpUrl("/small.txt")), Variant("get"),
                               Variant("body"), Variant("X-Test: 1")};
  Call(inet, "Execute", execute);
  EXPECT_EQ(execute[2], Variant(std::string()));
  std::vector<Variant> header{Variant("Content-Length")};
  EXPECT_EQ(Call(inet, "GetHeader", header), Variant("11"));
  std::vector<Variant> chunk{Variant(int32_t{5}), Variant(int32_t{1})};
  EXPECT_EQ(Call(inet, "GetChunk", chunk), Variant(std::vector<uint8_t>{'s', 'm', 'a', 'l', 'l'}));
  std::vector<Variant> rest;
  EXPECT_EQ(Call(inet, "GetResponse", rest), Variant(" file\n"));
  std::vector<Variant> none;
  EXPECT_TRUE(Call(inet, "Cancel", none).IsEmpty());
}

}  // namespace
}  // namespace pelmora
