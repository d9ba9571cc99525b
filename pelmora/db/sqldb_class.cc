// The late-bound face of SQLDB: creatable as "Pelmora.SQLDB". Recordsets, their Fields
// collection and each Field are objects returned by SQLDB's members (not creatable):
//
//   Set rs = db.RunSQLReturnRS("SELECT id, name FROM people")
//   Do While Not rs.EOF
//     name = rs.Fields("name").Value       ' or rs.Fields(1).Value; rs.Fields.Count
//     rs.MoveNext
//   Loop
//
// Arrays travel as Variant arrays with their lower bounds. SQLDB's members never raise;
// recordset members raise their numbered errors (3704, 3021, 3265, 3251, driver diagnostics).
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "pelmora/automation/class_binder.h"
#include "pelmora/db/recordset.h"
#include "pelmora/db/sqldb.h"

namespace pelmora::db {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;
using S = const std::string&;
using V = const Variant&;
using RecordsetRef = std::shared_ptr<Recordset>;

// One field of a recordset's current row.
class Field {
 public:
  Field(RecordsetRef recordset, int32_t ordinal)
      : recordset_(std::move(recordset)), ordinal_(ordinal) {}
  std::string Name() const { return recordset_->FieldName(ordinal_); }
  Variant Value() const { return recordset_->FieldValue(Variant(ordinal_)); }
  void SetValue(V value) { recordset_->SetFieldValue(Variant(ordinal_), value); }

 private:
  RecordsetRef recordset_;
  int32_t ordinal_;
};

// The fields of a recordset.
class Fields {
 public:
  explicit Fields(RecordsetRef recordset) : recordset_(std::move(recordset)) {}
  int32_t Count() const { return recordset_->FieldCount(); }
  // The field a number (from 0) or a name names; raises 3265 for none.
  std::shared_ptr<Field> Item(V index) const {
    return std::make_shared<Field>(recordset_, recordset_->FieldOrdinal(index));
  }

 private:
  RecordsetRef recordset_;
};

// rs.Fields is the collection; rs.Fields(index) the field it names.
ObjectRef FieldsByName(Recordset& recordset, V index) {
  auto fields = std::make_shared<Fields>(recordset.shared_from_this());
  if (index.IsEmpty()) return automation::Wrap(fields);
  return automation::Wrap(fields->Item(index));
}

const ClassRegistrar kFieldClass(ClassBinder<Field>("Pelmora.Field")
                                     .Property("Name", &Field::Name)
                                     .Property("Value", &Field::Value, &Field::SetValue));

const ClassRegistrar kFieldsClass(ClassBinder<Fields>("Pelmora.Fields")
                                      .Property("Count", &Fields::Count)
                                      .Method("Item", &Fields::Item));

const ClassRegistrar kRecordsetClass(ClassBinder<Recordset>("Pelmora.Recordset")
                                         .Property("EOF", &Recordset::Eof)
                                         .Method("MoveNext", &Recordset::MoveNext)
                                         .Method("Fields", &FieldsByName, {Variant()})
                                         .Method("AddNew", &Recordset::AddNew)
                                         .Method("Update", &Recordset::Update)
                                         .Method("Close", &Recordset::Close),
                                     nullptr);

const ClassRegistrar kSqlDbClass(
    ClassBinder<SQLDB>("Pelmora.SQLDB")
        .Property("ErrNumber", &SQLDB::ErrNumber)
        .Property("ErrDescription", &SQLDB::ErrDescription)
        .Property("ConnectionTimeout", &SQLDB::ConnectionTimeout, &SQLDB::SetConnectionTimeout)
        .Property("RecordsAffected", &SQLDB::RecordsAffected)
        .Method("Connect",
                [](SQLDB& db, S sConnectionString) { return db.Connect(sConnectionString); })
        .Method("Disconnect", &SQLDB::Disconnect)
        .Method("RunSQLNoReturn", &SQLDB::RunSQLNoReturn, {Variant()})
        .Method("RunSQLReturnRS", &SQLDB::RunSQLReturnRS, {Variant()})
        .Method("RunSPReturnRS", &SQLDB::RunSPReturnRS, {Variant()})
        .Method("RunSPReturnInteger", &SQLDB::RunSPReturnInteger, {Variant()})
        .Method("RunSPReturnParams", &SQLDB::RunSPReturnParams, {Variant()})
        .Method("RunSPNoReturn", &SQLDB::RunSPNoReturn, {Variant()})
        .Method("OpenTable", &SQLDB::OpenTable)
        .Method("BeginTrans", &SQLDB::BeginTrans)
        .Method("CommitTrans", &SQLDB::CommitTrans)
        .Method("RollbackTrans", &SQLDB::RollbackTrans)
        .Method("EscapeName", &SQLDB::EscapeName)
        .Method("EscapeValue", &SQLDB::EscapeValue)
        .Method("EscapeLike", &SQLDB::EscapeLike)
        .Method("UpdateRecordSQL", &SQLDB::UpdateRecordSQL, {Variant(false)})
        .Method("InsertRecordSQL", &SQLDB::InsertRecordSQL, {Variant(false)})
        .Method("UpdateRecord", &SQLDB::UpdateRecord)
        .Method("InsertRecordRS", &SQLDB::InsertRecordRS));

}  // namespace
}  // namespace pelmora::db
