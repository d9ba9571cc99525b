#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "pelmora/common/internal/log_test_support.h"
#include "pelmora/common/variant.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora {
namespace {

using automation::CallByName;
using automation::CallKind;
using automation::CreateObject;
using automation::GetProperty;
using automation::SetProperty;
using pelmora::testing::RaisedError;

// Points the local task folder at a fresh folder for one test.
class TaskClassTest : public ::testing::Test {
 protected:
  pelmora::internal::ScratchFolder folder_;
  pelmora::internal::ScopedEnv tasks_dir_{"PELMORA_TASKS_DIR", folder_.Path()};
};

TEST_F(TaskClassTest, CreatesAddsAndReadsATaskByName) {
  ObjectRef scheduler = CreateObject("Pelmora.TaskScheduler");
  Variant task = CallByName(scheduler, "CreateTask", CallKind::kMethod, {Variant("nightly")});
  ObjectRef t = task.ToObject();
  SetProperty(t, "ApplicationName", Variant("/bin/true"));
  SetProperty(t, "Triggers", Variant(VariantArray{0, {Variant("daily 02:30")}}));
  SetProperty(t, "Enabled", Variant(false));
  CallByName(scheduler, "Add", CallKind::kMethod, {task});
  Variant names = CallByName(scheduler, "ItemNames", CallKind::kMethod, {});
  ASSERT_EQ(names.ToArray().items.size(), 1u);
  EXPECT_EQ(names.ToArray().items[0], Variant("nightly.job"));

  ObjectRef item =
      CallByName(scheduler, "Item", CallKind::kPropertyGet, {Variant("NIGHTLY")}).ToObject();
  EXPECT_EQ(GetProperty(item, "ApplicationName"), Variant("/bin/true"));
  EXPECT_EQ(GetProperty(item, "flags"), Variant(4));
  EXPECT_EQ(GetProperty(item, "State"), Variant(267010));
  VariantArray triggers = GetProperty(item, "Triggers").ToArray();
  ASSERT_EQ(triggers.items.size(), 1u);
  EXPECT_EQ(triggers.items[0].ToString().substr(0, 11), "daily 02:30");
  EXPECT_EQ(GetProperty(item, "ExitCode"), Variant(static_cast<int16_t>(0)));
}

TEST_F(TaskClassTest, RaisesWithTheirNumbersSourcesAndTexts) {
  ObjectRef scheduler = CreateObject("Pelmora.TaskScheduler");
  Error empty =
      RaisedError([&] { CallByName(scheduler, "CreateTask", CallKind::kMethod, {Variant("")}); });
  EXPECT_EQ(empty.Number(), 5);
  EXPECT_EQ(empty.Source(), "Add");
  ObjectRef unnamed = CreateObject("Pelmora.Task");
  Error add =
      RaisedError([&] { CallByName(scheduler, "Add", CallKind::kMethod, {Variant(unnamed)}); });
  EXPECT_EQ(add.Number(), 5);
  EXPECT_EQ(add.Source(), "Add");
  Error missing = RaisedError(
      [&] { CallByName(scheduler, "Item", CallKind::kPropertyGet, {Variant("none")}); });
  EXPECT_EQ(missing.Number(), -2147024894);
  EXPECT_EQ(missing.Source(), "Pelmora.TaskScheduler");
  Error trigger = RaisedError([&] {
    SetProperty(unnamed, "Triggers", Variant(VariantArray{0, {Variant("hourly")}}));
  });
  EXPECT_EQ(trigger.Number(), -2147024809);
  EXPECT_TRUE(CallByName(scheduler, "ItemNames", CallKind::kMethod, {}).ToArray().items.empty());
}

// The Job UUID of a stored task's file.
std::string JobUuid(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string bytes(20, '\0');
  in.read(bytes.data(), 20);
  return in ? bytes.substr(4) : std::string();
}

TEST_F(TaskClassTest, NewTasksGetRandomJobUuidsThatSaveKeeps) {
  ObjectRef scheduler = CreateObject("Pelmora.TaskScheduler");
  for (const char* name : {"first", "second"}) {
    Variant task = CallByName(scheduler, "CreateTask", CallKind::kMethod, {Variant(name)});
    CallByName(scheduler, "Add", CallKind::kMethod, {task});
  }
  std::string first = JobUuid(folder_.Path() + "/first.job");
  std::string second = JobUuid(folder_.Path() + "/second.job");
  ASSERT_EQ(first.size(), 16u);
  EXPECT_NE(first, std::string(16, '\0'));
  EXPECT_NE(first, second);
  EXPECT_EQ(static_cast<uint8_t>(first[7]) >> 4, 4);  // a version 4 GUID, Data3 little-endian
  EXPECT_EQ(static_cast<uint8_t>(first[8]) >> 6, 2);
  ObjectRef item =
      CallByName(scheduler, "Item", CallKind::kPropertyGet, {Variant("first")}).ToObject();
  SetProperty(item, "Comment", Variant("changed"));
  CallByName(item, "Save", CallKind::kMethod, {});
  EXPECT_EQ(JobUuid(folder_.Path() + "/first.job"), first);
}

TEST_F(TaskClassTest, ErrorRetrySettingsAreNotImplemented) {
  ObjectRef task = CreateObject("Pelmora.Task");
  for (const char* name : {"ErrorRetryCount", "ErrorRetryInterval"}) {
    for (const Error& e : {RaisedError([&] { GetProperty(task, name); }),
                           RaisedError([&] { SetProperty(task, name, Variant(int16_t{1})); })}) {
      EXPECT_EQ(e.Number(), -2147467263) << name;  // E_NOTIMPL
      EXPECT_EQ(e.Description(), "Not implemented") << name;
    }
  }
}

}  // namespace
}  // namespace pelmora
