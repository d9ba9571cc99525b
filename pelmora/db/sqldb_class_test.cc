// Late binding of "Pelmora.SQLDB", its recordsets and fields, on an embedded SQLite database.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "pelmora/db/internal/test_support.h"
#include "pelmora/testing/postgres_server.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora::db {
namespace {

using automation::CallByName;
using automation::CallKind;
using automation::CreateObject;
using automation::GetProperty;
using automation::SetProperty;
using internal::Array;

Variant Call(const ObjectRef& object, std::string_view name, std::initializer_list<Variant> args) {
  return CallByName(object, name, CallKind::kMethod, args);
}

class SqlDbClass : public ::testing::Test {
 protected:
  void SetUp() override {
    db_ = CreateObject("pelmora.sqldb");
    ASSERT_TRUE(Call(db_, "Connect", {folder_.Path("data.db")}).ToBool());
    ASSERT_TRUE(Call(db_, "RunSQLNoReturn", {"CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT)"})
                    .ToBool());
  }

  testing::TempFolder folder_;
  ObjectRef db_;
};

TEST_F(SqlDbClass, BuildersTakeVariantArraysWithTheirLowerBounds) {
  EXPECT_TRUE(
      Call(db_, "InsertRecordSQL", {"t", Array({"id", "name"}, 1), Array({1, "a"}, 1)}).ToBool());
  EXPECT_TRUE(Call(db_, "UpdateRecordSQL", {"t", Array({"name", "b"}), Array({"id", 1})}).ToBool());
  EXPECT_EQ(GetProperty(db_, "RecordsAffected"), Variant(int32_t{1}));
  EXPECT_FALSE(Call(db_, "UpdateRecordSQL", {"t", Array({"name"}), Array({"id", 1})}).ToBool());
  EXPECT_EQ(GetProperty(db_, "ErrNumber"), Variant(int32_t{9}));
  EXPECT_EQ(Call(db_, "EscapeName", {"a]b"}), Variant("[a]]b]"));
  EXPECT_EQ(Call(db_, "EscapeLike", {"*x*"}), Variant("'%x%' ESCAPE '\\'"));
}

TEST_F(SqlDbClass, RecordsetsAndFieldsAreObjects) {
  ASSERT_TRUE(
      Call(db_, "RunSQLNoReturn", {"INSERT INTO t VALUES (?, ?)", Array({1, "a"})}).ToBool());
  ObjectRef rs = Call(db_, "RunSQLReturnRS", {"SELECT id, name FROM t"}).ToObject();
  ASSERT_NE(rs, nullptr);
  EXPECT_FALSE(GetProperty(rs, "EOF").ToBool());
  ObjectRef fields = GetProperty(rs, "Fields").ToObject();
  EXPECT_EQ(GetProperty(fields, "Count"), Variant(int32_t{2}));
  ObjectRef name = Call(rs, "Fields", {"NAME"}).ToObject();
  EXPECT_EQ(GetProperty(name, "Name"), Variant("name"));
  EXPECT_EQ(GetProperty(name, "Value"), Variant("a"));
  EXPECT_EQ(GetProperty(Call(fields, "Item", {0}).ToObject(), "Value"), Variant(int32_t{1}));
  Call(rs, "MoveNext", {});
  EXPECT_TRUE(GetProperty(rs, "EOF").ToBool());
  Error raised = testing::RaisedError([&] { GetProperty(name, "Value"); });
  EXPECT_EQ(raised.Number(), 3021);
}

TEST_F(SqlDbClass, OpenTableRecordsetsTakeFieldAssignments) {
  ObjectRef rs = Call(db_, "OpenTable", {"t"}).ToObject();
  ASSERT_NE(rs, nullptr);
  Call(rs, "AddNew", {});
  SetProperty(Call(rs, "Fields", {"id"}).ToObject(), "Value", Variant(7));
  SetProperty(Call(rs, "Fields", {"name"}).ToObject(), "Value", Variant("seven"));
  Call(rs, "Update", {});
  EXPECT_TRUE(Call(db_, "InsertRecordRS", {Variant(rs), Array({"id", "name"}), Array({8, "eight"})})
                  .ToBool());
  ObjectRef check = Call(db_, "RunSQLReturnRS", {"SELECT group_concat(name) FROM t"}).ToObject();
  EXPECT_EQ(GetProperty(Call(check, "Fields", {0}).ToObject(), "Value"), Variant("seven,eight"));
}

TEST_F(SqlDbClass, FailuresReturnNothingAndSetTheErrorProperties) {
  Variant rs = Call(db_, "RunSQLReturnRS", {"SELECT * FROM missing"});
  EXPECT_TRUE(rs.IsNothing());
  EXPECT_EQ(GetProperty(db_, "ErrDescription"),
            Variant("[SQLite]no such table: missing (1) (SQLSTATE HY000, native error 1)"));
  Variant params = Call(db_, "RunSPReturnParams", {"p"});
  EXPECT_EQ(params.Type(), VariantType::kArray);
  EXPECT_TRUE(params.ToArray().items.empty());
}

}  // namespace
}  // namespace pelmora::db
