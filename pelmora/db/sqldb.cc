#include "pelmora/db/sqldb.h"

#include <cstdint>
#include <exception>
#include <utility>

#include "pelmora/common/error.h"
#include "pelmora/common/log.h"
#include "pelmora/db/internal/execution.h"
#include "pelmora/db/internal/odbc.h"
#include "pelmora/db/internal/table_writer.h"
#include "pelmora/db/sql_text.h"

namespace pelmora::db {

using internal::Execution;
using internal::OdbcConnection;

namespace {

// A driver's row count as RecordsAffected holds it: -1 stays unknown, more than fits is the most
// that fits.
int32_t RowCount(int64_t rows) {
  if (rows < 0) return -1;
  return rows > INT32_MAX ? INT32_MAX : static_cast<int32_t>(rows);
}

}  // namespace

SQLDB::SQLDB() = default;
SQLDB::~SQLDB() = default;

template <class R, class F>
R SQLDB::Guarded(std::string_view routine, R failure, F&& work) {
  ClearError();
  try {
    return work();
  } catch (const Error& e) {
    RecordError(routine, e.Number(), e.Description());
  } catch (const std::exception& e) {
    RecordError(routine, internal::kErrorProviderFailed, e.what());
  }
  return failure;
}

void SQLDB::ClearError() {
  err_number_ = 0;
  err_description_.clear();
}

void SQLDB::RecordError(std::string_view routine, int32_t number, std::string description) {
  err_number_ = number;
  err_description_ = std::move(description);
  WriteLog(1, err_description_, "SQLDB", routine, kLogEntryError);
}

OdbcConnection& SQLDB::RequireConnection() const {
  if (!connection_ || !connection_->IsOpen()) {
    throw internal::ObjectError(internal::kErrorObjectClosed);
  }
  return *connection_;
}

bool SQLDB::Connect(const std::string& sConnectionString) {
  return Guarded("Connect", false, [&] {
    connection_.reset();
    if (sConnectionString.empty()) throw internal::ObjectError(internal::kErrorObjectClosed);
    connection_ = OdbcConnection::Open(internal::NormalizeConnectionString(sConnectionString),
                                       connection_timeout_);
    return true;
  });
}

bool SQLDB::Disconnect() {
  ClearError();
  connection_.reset();
  return true;
}

bool SQLDB::IsConnected() const { return connection_ && connection_->IsOpen(); }

bool SQLDB::RunSQLNoReturn(const std::string& sSQL, const Variant& vParams) {
  records_affected_ = -1;
  return Guarded("RunSQLNoReturn", false, [&] {
    records_affected_ = RowCount(internal::ExecuteDroppingResults(
        RequireConnection(), sSQL, internal::ReadParameters(vParams)));
    return true;
  });
}

std::shared_ptr<Recordset> SQLDB::RunSQLReturnRS(const std::string& sSQL, const Variant& vParams) {
  records_affected_ = -1;
  return Guarded("RunSQLReturnRS", std::shared_ptr<Recordset>(), [&] {
    Execution execution =
        internal::Execute(RequireConnection(), sSQL, internal::ReadParameters(vParams));
    records_affected_ = RowCount(execution.rows_affected);
    return std::make_shared<Recordset>(connection_, std::move(execution.statement));
  });
}

Execution SQLDB::Call(const std::string& name, const Variant& params, bool with_return) {
  OdbcConnection& connection = RequireConnection();
  std::vector<internal::CallParameter> parameters = internal::ReadParameters(params);
  std::string sql = internal::CallEscape(name, parameters.size(), with_return);
  if (with_return) {
    parameters.insert(parameters.begin(), {SQL_PARAM_OUTPUT, Variant(int32_t{0})});
  }
  return internal::Execute(connection, sql, parameters);
}

std::shared_ptr<Recordset> SQLDB::RunSPReturnRS(const std::string& sSPName,
                                                const Variant& vParams) {
  return Guarded("RunSPReturnRS", std::shared_ptr<Recordset>(), [&] {
    Execution execution = Call(sSPName, vParams, false);
    return std::make_shared<Recordset>(connection_, std::move(execution.statement));
  });
}

int32_t SQLDB::RunSPReturnInteger(const std::string& sSPName, const Variant& vParams) {
  return Guarded("RunSPReturnInteger", int32_t{0}, [&] {
    Execution execution = Call(sSPName, vParams, true);
    // Drivers fill output parameters once the results are consumed.
    SQLCloseCursor(execution.statement.Get());
    Variant result = execution.parameters.front().Value();
    return result.IsNull() ? 0 : result.ToLong();
  });
}

VariantArray SQLDB::RunSPReturnParams(const std::string& sSPName, const Variant& vParams) {
  return Guarded("RunSPReturnParams", VariantArray(), [&] {
    Execution execution = Call(sSPName, vParams, false);
    SQLCloseCursor(execution.statement.Get());
    return execution.Outputs();
  });
}

bool SQLDB::RunSPNoReturn(const std::string& sSPName, const Variant& vParams) {
  return Guarded("RunSPNoReturn", false, [&] {
    Call(sSPName, vParams, false);
    return true;
  });
}

std::shared_ptr<Recordset> SQLDB::OpenTable(const std::string& sTableName) {
  return Guarded("OpenTable", std::shared_ptr<Recordset>(), [&] {
    OdbcConnection& connection = RequireConnection();
    std::string sql =
        "SELECT * FROM " + internal::QuoteIdentifier(sTableName, connection.IdentifierQuote());
    Execution execution = internal::Execute(connection, sql, {});
    return std::make_shared<Recordset>(connection_, std::move(execution.statement), &sTableName);
  });
}

bool SQLDB::BeginTrans() {
  return Guarded("BeginTrans", false, [&] {
    RequireConnection().SetAutoCommit(false);
    return true;
  });
}

bool SQLDB::CommitTrans() {
  return Guarded("CommitTrans", false, [&] {
    RequireConnection().EndTransaction(true);
    connection_->SetAutoCommit(true);
    return true;
  });
}

bool SQLDB::RollbackTrans() {
  return Guarded("RollbackTrans", false, [&] {
    RequireConnection().EndTransaction(false);
    connection_->SetAutoCommit(true);
    return true;
  });
}

std::string SQLDB::EscapeName(const std::string& sName) const { return db::EscapeName(sName); }

std::string SQLDB::EscapeValue(const std::string& sValue) const { return db::EscapeValue(sValue); }

std::string SQLDB::EscapeLike(const std::string& sPattern) const {
  return db::EscapeLike(sPattern);
}

bool SQLDB::RunBuiltStatement(const std::string& statement) {
  if (RunSQLNoReturn(statement)) return true;
  err_description_ += "(" + statement + ")";
  return false;
}

bool SQLDB::UpdateRecordSQL(const std::string& TableName, const Variant& Values,
                            const Variant& Wheres, bool Unicode) {
  return Guarded("UpdateRecordSQL", false, [&] {
    return RunBuiltStatement(
        BuildUpdateStatement(TableName, Values.ToArray(), Wheres.ToArray(), Unicode));
  });
}

bool SQLDB::InsertRecordSQL(const std::string& TableName, const Variant& FieldList,
                            const Variant& Values, bool Unicode) {
  return Guarded("InsertRecordSQL", false, [&] {
    return RunBuiltStatement(
        BuildInsertStatement(TableName, FieldList.ToArray(), Values.ToArray(), Unicode));
  });
}

void SQLDB::AssignFields(Recordset& recordset, const Variant& FieldList, const Variant& Values) {
  const VariantArray& fields = FieldList.ToArray();
  const VariantArray& values = Values.ToArray();
  for (int64_t i = fields.lower_bound; i <= fields.UpperBound(); ++i) {
    auto index = static_cast<int32_t>(i);
    recordset.SetFieldValue(fields.At(index), values.At(index));
  }
  recordset.Update();
}

bool SQLDB::UpdateRecord(const std::shared_ptr<Recordset>& oRS, const Variant& FieldList,
                         const Variant& Values) {
  return Guarded("UpdateRecord", false, [&] {
    if (!oRS) throw RuntimeError(91, "SQLDB");
    AssignFields(*oRS, FieldList, Values);
    return true;
  });
}

bool SQLDB::InsertRecordRS(const std::shared_ptr<Recordset>& oRS, const Variant& FieldList,
                           const Variant& Values) {
  return Guarded("InsertRecordRS", false, [&] {
    if (!oRS) throw RuntimeError(91, "SQLDB");
    oRS->AddNew();
    AssignFields(*oRS, FieldList, Values);
    return true;
  });
}

}  // namespace pelmora::db
