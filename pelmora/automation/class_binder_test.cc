#include "pelmora/automation/class_binder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora::automation {
namespace {

using ::testing::ElementsAre;

enum class Shade { kLight = 1, kDark = 2 };

// A small typed class bound below as "Pelmora.TestCounter".
class Counter {
 public:
  EventSource events;

  int32_t Value() const { return value_; }
  void SetValue(int32_t value) {
    if (value < 0) throw RuntimeError(380);
    value_ = value;
  }
  int32_t Add(int32_t amount, int32_t times) { return value_ += amount * times; }
  bool Split(const std::string& text, std::string& head, int32_t& rest_length) {
    size_t space = text.find(' ');
    head = text.substr(0, space);
    rest_length = space == std::string::npos ? 0 : static_cast<int32_t>(text.size() - space - 1);
    return space != std::string::npos;
  }
  void Fill(Variant& buffer, int32_t size) {
    buffer = Variant(std::vector<uint8_t>(static_cast<size_t>(size), 7));
    throw Error(10060, "timed out");
  }
  void Fail(int32_t number, const std::string& source) { throw Error(number, "failed", source); }
  void Crash() { throw std::runtime_error("bug"); }
  std::shared_ptr<Counter> Clone() const {
    auto copy = std::make_shared<Counter>();
    copy->value_ = value_;
    return copy;
  }
  bool SameValue(std::shared_ptr<Counter> other) const { return other && other->value_ == value_; }
  std::string Announce(std::string text) {
    events.Raise("Announced", text, value_);
    return text;
  }
  Shade Darker(Shade shade) const { return shade == Shade::kLight ? Shade::kDark : shade; }

  std::string label;

 private:
  int32_t value_ = 0;
};

// A class without events, not creatable.
class Plain {
 public:
  explicit Plain(int32_t id) : id_(id) {}
  int32_t Id() const { return id_; }

 private:
  int32_t id_;
};

const ClassRegistrar kCounterClass(
    ClassBinder<Counter>("Pelmora.TestCounter")
        .Property("Value", &Counter::Value, &Counter::SetValue)
        .Property("Label", &Counter::label)
        .Property("Doubled", [](Counter& c) { return c.Value() * 2; })
        .Method("Add", &Counter::Add, {Variant(1)})
        .Method("Split", &Counter::Split)
        .Method("Fill", &Counter::Fill)
        .Method("Fail", &Counter::Fail)
        .Method("Crash", &Counter::Crash)
        .Method("Clone", &Counter::Clone)
        .Method("SameValue", &Counter::SameValue)
        .Method("Announce", &Counter::Announce)
        .Method("Darker", &Counter::Darker)
        .Method("Scaled", [](const Counter& c, double factor) { return c.Value() * factor; })
        .Events(&Counter::events));

const ClassRegistrar kPlainClass(ClassBinder<Plain>("Pelmora.TestPlain").Property("Id", &Plain::Id),
                                 nullptr);

// The error that invoking `name` raises (number 0 when none).
Error InvokeError(const ObjectRef& object, std::string_view name, CallKind kind,
                  std::vector<Variant> args) {
  return pelmora::testing::RaisedError([&] { CallByName(object, name, kind, args); });
}

class ClassBinderTest : public ::testing::Test {
 protected:
  ObjectRef counter_ = CreateObject("Pelmora.TestCounter");
};

TEST_F(ClassBinderTest, FindsMembersWithoutRegardToCase) {
  SetProperty(counter_, "VALUE", Variant(4));
  EXPECT_EQ(GetProperty(counter_, "value"), Variant(4));
  std::vector<Variant> args{Variant(3)};
  EXPECT_EQ(counter_->Invoke("aDD", CallKind::kMethod, args), Variant(7));
  EXPECT_EQ(counter_->ProgId(), "Pelmora.TestCounter");
}

TEST_F(ClassBinderTest, ConvertsArgumentsAndResults) {
  SetProperty(counter_, "Value", Variant("12"));  // a numeric text is accepted for a Long
  EXPECT_EQ(GetProperty(counter_, "Doubled"), Variant(24));
  std::vector<Variant> args{Variant(0.5f)};
  EXPECT_EQ(counter_->Invoke("Scaled", CallKind::kMethod, args), Variant(6.0));
  std::vector<Variant> shade{Variant(int16_t{1})};
  EXPECT_EQ(counter_->Invoke("Darker", CallKind::kMethod, shade), Variant(2));
}

TEST_F(ClassBinderTest, DataMemberIsReadWriteProperty) {
  SetProperty(counter_, "label", Variant(42));
  EXPECT_EQ(GetProperty(counter_, "Label"), Variant("42"));
  EXPECT_EQ(Unwrap<Counter>(counter_)->label, "42");
}

TEST_F(ClassBinderTest, WritesByReferenceArgumentsBack) {
  std::vector<Variant> args{Variant("alpha beta"), Variant(), Variant(int16_t{9})};
  EXPECT_EQ(counter_->Invoke("Split", CallKind::kMethod, args), Variant(true));
  EXPECT_EQ(args[0], Variant("alpha beta"));  // by value: untouched
  EXPECT_EQ(args[1], Variant("alpha"));
  EXPECT_EQ(args[2], Variant(4));  // written back as the parameter's type
}

TEST_F(ClassBinderTest, WritesByReferenceArgumentsBackWhenTheMemberRaises) {
  std::vector<Variant> args{Variant(), Variant(3)};
  EXPECT_THROW(counter_->Invoke("Fill", CallKind::kMethod, args), Error);
  EXPECT_EQ(args[0], Variant(std::vector<uint8_t>{7, 7, 7}));
}

TEST_F(ClassBinderTest, FillsOptionalArgumentsFromDefaults) {
  std::vector<Variant> one{Variant(5)};
  EXPECT_EQ(counter_->Invoke("Add", CallKind::kMethod, one), Variant(5));
  std::vector<Variant> two{Variant(5), Variant(2)};
  EXPECT_EQ(counter_->Invoke("Add", CallKind::kMethod, two), Variant(15));
}

TEST_F(ClassBinderTest, ReturnsAndAcceptsObjectsOfBoundClasses) {
  SetProperty(counter_, "Value", Variant(8));
  ObjectRef clone = CallByName(counter_, "Clone", CallKind::kMethod).ToObject();
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(clone->ProgId(), "Pelmora.TestCounter");
  EXPECT_EQ(GetProperty(clone, "Value"), Variant(8));
  std::vector<Variant> args{Variant(clone)};
  EXPECT_EQ(counter_->Invoke("SameValue", CallKind::kMethod, args), Variant(true));
  std::vector<Variant> nothing{Variant::Nothing()};
  EXPECT_EQ(counter_->Invoke("SameValue", CallKind::kMethod, nothing), Variant(false));
}

TEST_F(ClassBinderTest, DescribesMembersForTools) {
  std::vector<MemberInfo> members = counter_->Members();
  auto find = [&](std::string_view name) {
    return *std::find_if(members.begin(), members.end(),
                         [&](const MemberInfo& m) { return m.name == name; });
  };
  MemberInfo add = find("Add");
  EXPECT_TRUE(add.is_method && add.readable && !add.writable);
  EXPECT_EQ(add.min_args, 1u);
  EXPECT_EQ(add.max_args, 2u);
  MemberInfo doubled = find("Doubled");
  EXPECT_TRUE(!doubled.is_method && doubled.readable && !doubled.writable);
  EXPECT_TRUE(find("Value").writable);
  EXPECT_EQ(add.by_reference, 0u);
  EXPECT_EQ(find("Fill").by_reference, 0b01u);  // Fill(Variant& buffer, int32_t size)
}

TEST_F(ClassBinderTest, ListsMembersInDeclarationOrder) {
  std::vector<std::string> names = counter_->MemberNames();
  ASSERT_GE(names.size(), 3u);
  EXPECT_THAT(std::vector<std::string>(names.begin(), names.begin() + 3),
              ElementsAre("Value", "Label", "Doubled"));
}

struct ErrorCase {
  std::string name;
  std::string member;
  CallKind kind = CallKind::kMethod;
  std::vector<Variant> args;
  int32_t number = 0;
  std::string description;
  std::string source = "Pelmora.TestCounter";
};
void PrintTo(const ErrorCase& c, std::ostream* os) { *os << c.name; }

class InvokeErrorTest : public ClassBinderTest, public ::testing::WithParamInterface<ErrorCase> {};

TEST_P(InvokeErrorTest, RaisesNumberedErrorWithSource) {
  const ErrorCase& c = GetParam();
  Error e = InvokeError(counter_, c.member, c.kind, c.args);
  EXPECT_EQ(e.Number(), c.number);
  EXPECT_EQ(e.Description(), c.description);
  EXPECT_EQ(e.Source(), c.source);
}

const std::string kNoMember = "Object doesn't support this property or method";
const std::string kBadCount = "Wrong number of arguments or invalid property assignment";

INSTANTIATE_TEST_SUITE_P(
    ClassBinder, InvokeErrorTest,
    ::testing::Values(
        ErrorCase{"UnknownMember", "Frobnicate", CallKind::kMethod, {}, 438, kNoMember},
        ErrorCase{"TooFewArguments", "Add", CallKind::kMethod, {}, 450, kBadCount},
        ErrorCase{"TooManyArguments",
                  "Add",
                  CallKind::kMethod,
                  {Variant(1), Variant(2), Variant(3)},
                  450,
                  kBadCount},
        ErrorCase{
            "PropertyWithArgument", "Value", CallKind::kPropertyGet, {Variant(1)}, 450, kBadCount},
        ErrorCase{
            "AssignReadOnly", "Doubled", CallKind::kPropertyLet, {Variant(1)}, 450, kBadCount},
        ErrorCase{"AssignMethod", "Add", CallKind::kPropertyLet, {Variant(1)}, 450, kBadCount},
        ErrorCase{"TextForLong", "Add", CallKind::kMethod, {Variant("many")}, 13, "Type mismatch"},
        ErrorCase{"LongOverflow", "Add", CallKind::kMethod, {Variant(3e9)}, 6, "Overflow"},
        ErrorCase{"NumberForObject",
                  "SameValue",
                  CallKind::kMethod,
                  {Variant(1)},
                  424,
                  "Object required"},
        ErrorCase{"MemberErrorWithoutSource",
                  "Value",
                  CallKind::kPropertyLet,
                  {Variant(-1)},
                  380,
                  "Invalid property value"},
        ErrorCase{"MemberErrorKeepsSource",
                  "Fail",
                  CallKind::kMethod,
                  {Variant(9001), Variant("Inner")},
                  9001,
                  "failed",
                  "Inner"},
        ErrorCase{"MemberErrorGetsProgId",
                  "Fail",
                  CallKind::kMethod,
                  {Variant(9002), Variant("")},
                  9002,
                  "failed"},
        ErrorCase{"ForeignException", "Crash", CallKind::kMethod, {}, 440, "Automation error"}),
    [](const ::testing::TestParamInfo<ErrorCase>& info) { return info.param.name; });

TEST_F(ClassBinderTest, ObjectOfAnotherClassIsTypeMismatch) {
  ObjectRef plain = Wrap(std::make_shared<Plain>(3));
  EXPECT_EQ(GetProperty(plain, "ID"), Variant(3));
  Error e = InvokeError(counter_, "SameValue", CallKind::kMethod, {Variant(plain)});
  EXPECT_EQ(e.Number(), 13);
  EXPECT_EQ(e.Source(), "Pelmora.TestCounter");
}

TEST_F(ClassBinderTest, SendsEventsToConnectedSinksWithByReferenceArguments) {
  SetProperty(counter_, "Value", Variant(2));
  std::vector<std::string> seen;
  auto sink = MakeEventSink([&](std::string_view name, std::span<Variant> args) {
    seen.push_back(std::string(name) + ":" + args[0].ToString() + ":" + args[1].ToString());
    args[0] = Variant("changed");
  });
  uint32_t cookie = counter_->ConnectEvents(sink);
  std::vector<Variant> args{Variant("hello")};
  EXPECT_EQ(counter_->Invoke("Announce", CallKind::kMethod, args), Variant("changed"));
  counter_->DisconnectEvents(cookie);
  EXPECT_EQ(counter_->Invoke("Announce", CallKind::kMethod, args), Variant("hello"));
  EXPECT_THAT(seen, ElementsAre("Announced:hello:2"));
}

TEST(ClassBinder, ClassWithoutEventsRefusesSinks) {
  ObjectRef plain = Wrap(std::make_shared<Plain>(1));
  Error e = pelmora::testing::RaisedError(
      [&] { plain->ConnectEvents(MakeEventSink([](std::string_view, std::span<Variant>) {})); });
  EXPECT_EQ(e.Number(), 438);
  EXPECT_EQ(e.Source(), "Pelmora.TestPlain");
}

TEST(ClassBinder, MoreDefaultsThanParametersIsABindingMistake) {
  EXPECT_THROW(ClassBinder<Counter>("X").Method("Add", &Counter::Add, {1, 2, 3}),
               std::invalid_argument);
}

}  // namespace
}  // namespace pelmora::automation
