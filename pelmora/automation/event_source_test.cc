#include "pelmora/automation/event_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora::automation {
namespace {

using ::testing::ElementsAre;

TEST(EventSource, WritesSinkChangesBackToLvalueArgumentsOnly) {
  EventSource source;
  source.Connect(MakeEventSink([](std::string_view, std::span<Variant> args) {
    for (Variant& arg : args) arg = Variant("7");
  }));
  std::string text = "before";
  int32_t number = 1;
  const int32_t fixed = 2;
  std::string_view view = "view";  // converts one way only: by value
  source.Raise("Changed", text, number, fixed, std::string("temporary"), view);
  EXPECT_EQ(text, "7");
  EXPECT_EQ(number, 7);  // converted back to the argument's type
  EXPECT_EQ(view, "view");
}

TEST(EventSource, SinkLeavingAnUnconvertibleValueRaises13) {
  EventSource source;
  source.Connect(MakeEventSink(
      [](std::string_view, std::span<Variant> args) { args[0] = Variant("not a number"); }));
  int32_t number = 1;
  EXPECT_EQ(pelmora::testing::RaisedError([&] { source.Raise("Changed", number); }).Number(), 13);
}

TEST(EventSource, CallsSinksInConnectionOrderAndHonoursDisconnect) {
  EventSource source;
  std::vector<std::string> calls;
  uint32_t first = source.Connect(MakeEventSink([&](std::string_view name, std::span<Variant>) {
    calls.push_back("1" + std::string(name));
  }));
  uint32_t second = 0;
  second = source.Connect(MakeEventSink([&](std::string_view name, std::span<Variant>) {
    calls.push_back("2" + std::string(name));
    source.Disconnect(second);  // takes effect from the next event
  }));
  EXPECT_NE(first, second);
  EXPECT_EQ(source.Connect(nullptr), 0u);
  source.Raise("A");
  source.Raise("B");
  source.Disconnect(first);
  source.Disconnect(12345);
  source.Raise("C");
  EXPECT_THAT(calls, ElementsAre("1A", "2A", "1B"));
  EXPECT_FALSE(source.HasSinks());
}

}  // namespace
}  // namespace pelmora::automation
