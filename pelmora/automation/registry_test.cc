#include "pelmora/automation/registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "pelmora/common/dictionary.h"
#include "pelmora/common/error.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora::automation {
namespace {

using ::testing::Contains;

// A hand-written Dispatch: echoes the member name and the argument count, and doubles a
// by-reference first argument.
class Echo : public Dispatch {
 public:
  Variant Invoke(std::string_view name, CallKind kind, std::span<Variant> args) override {
    if (!args.empty() && args[0].IsNumeric()) args[0] = Variant(args[0].ToLong() * 2);
    last_kind = kind;
    return Variant(std::string(name) + "/" + std::to_string(args.size()));
  }
  std::string ProgId() const override { return "Pelmora.TestEcho"; }
  CallKind last_kind = CallKind::kMethod;
};

class Registry : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    RegisterClass("Pelmora.TestEcho", [] { return std::make_shared<Echo>(); });
    RegisterClass("Pelmora.TestBroken", []() -> ObjectRef { throw RuntimeError(7); });
  }
};

TEST_F(Registry, CreatesObjectsByProgIdInAnyCase) {
  ObjectRef a = CreateObject("pelmora.testecho");
  ObjectRef b = CreateObject("PELMORA.TESTECHO");
  ASSERT_NE(a, nullptr);
  EXPECT_NE(a, b);  // a new object each time
  EXPECT_EQ(a->ProgId(), "Pelmora.TestEcho");
}

TEST_F(Registry, UnknownProgIdRaises429) {
  Error e = pelmora::testing::RaisedError([&] { CreateObject("Pelmora.NoSuchThing"); });
  EXPECT_EQ(e.Number(), 429);
  EXPECT_EQ(e.Description(), "Component can't create object or return reference to this object");
}

TEST_F(Registry, ConstructionErrorGetsTheProgIdAsSource) {
  Error e = pelmora::testing::RaisedError([&] { CreateObject("Pelmora.TestBroken"); });
  EXPECT_EQ(e.Number(), 7);
  EXPECT_EQ(e.Source(), "Pelmora.TestBroken");
}

TEST_F(Registry, ListsRegisteredClassesSortedWithoutCase) {
  std::vector<std::string> names = ListClasses();
  EXPECT_THAT(names, Contains("Pelmora.TestEcho"));
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end(), [](const auto& a, const auto& b) {
    return FoldKeyCase(a) < FoldKeyCase(b);
  }));
}

TEST_F(Registry, HelpersPassKindAndArguments) {
  ObjectRef object = CreateObject("Pelmora.TestEcho");
  auto* echo = static_cast<Echo*>(object.get());
  std::vector<Variant> args{Variant(21), Variant("x")};
  EXPECT_EQ(CallByName(object, "Run", CallKind::kMethod, args), Variant("Run/2"));
  EXPECT_EQ(args[0], Variant(42));
  EXPECT_EQ(CallByName(object, "Run", CallKind::kMethod, {1, "two"}), Variant("Run/2"));
  EXPECT_EQ(GetProperty(object, "Size"), Variant("Size/0"));
  EXPECT_EQ(echo->last_kind, CallKind::kPropertyGet);
  SetProperty(object, "Size", Variant(1));
  EXPECT_EQ(echo->last_kind, CallKind::kPropertyLet);
  SetProperty(object, "Parent", Variant(object));
  EXPECT_EQ(echo->last_kind, CallKind::kPropertySet);
}

TEST_F(Registry, CallOnNothingRaises91) {
  Error e = pelmora::testing::RaisedError([&] { GetProperty(nullptr, "Size"); });
  EXPECT_EQ(e.Number(), 91);
  EXPECT_EQ(e.Description(), "Object variable or With block variable not set");
}

TEST_F(Registry, ObjectsWithoutEventsRefuseSinksWith438) {
  ObjectRef object = CreateObject("Pelmora.TestEcho");
  Error e = pelmora::testing::RaisedError(
      [&] { object->ConnectEvents(MakeEventSink([](std::string_view, std::span<Variant>) {})); });
  EXPECT_EQ(e.Number(), 438);
  EXPECT_EQ(e.Source(), "Pelmora.TestEcho");
}

}  // namespace
}  // namespace pelmora::automation
