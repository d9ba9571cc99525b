// SQLDB: one database connection over ODBC, statements and stored procedures run on it, and
// the UPDATE and INSERT statements built from arrays of names and values.
//
//   pelmora::db::SQLDB db;
//   if (!db.Connect("/var/lib/app/data.db")) std::cerr << db.ErrDescription();
//   db.InsertRecordSQL("People", Array("Id", "Name"), Array(1, "O'Brien"), false);
//   // runs INSERT INTO [People]([Id],[Name]) values (1,'O''Brien')
//   auto rs = db.RunSQLReturnRS("SELECT Name FROM People WHERE Id = ?", Array(1));
//
// Connection strings: a string without "=" is the path of a SQLite database, served by the
// SQLite3 ODBC driver ("Driver=SQLite3;Database=<path>"); anything else goes to the driver
// manager as it is ("Driver=PostgreSQL Unicode;Server=...", "DSN=name;UID=...").
//
// Errors: no member raises. A failing member returns false, 0, an empty array or a null
// recordset and leaves ErrNumber and ErrDescription set (every member clears them first) and
// writes the failure to the log (WriteLog, module "SQLDB"). Driver failures carry every
// diagnostic record as "message (SQLSTATE s, native error n)" and a number by SQLSTATE class:
// -2147217900 syntax or unknown object (42), -2147217873 constraint (23), -2147217913 data (22,
// 07), -2147217871 timeout (HYT), -2147217843 login (28), -2147467259 anything else (connection
// failures, 08). Without a connection members fail with 3704 "Operation is not allowed when the
// object is closed.". Bad arguments keep their run-time numbers (9, 13, 91, 94, 5).
//
// Parameters: values from callers always travel as bound parameters ("?" markers in the
// statement). A parameter array holds one element per marker: a plain value is an input; an
// array (name, direction, value) gives a direction of 1 input, 2 output or 3 input/output
// (an output's value chooses its type; Empty means text).
//
// Every member blocks until the driver answers.
#ifndef PELMORA_DB_SQLDB_H_
#define PELMORA_DB_SQLDB_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "pelmora/common/variant.h"
#include "pelmora/db/recordset.h"
#include "pelmora/platform/export.h"

namespace pelmora::db {

namespace internal {
class OdbcConnection;
struct Execution;
}  // namespace internal

class PELMORA_API SQLDB {
 public:
  SQLDB();
  ~SQLDB();
  SQLDB(const SQLDB&) = delete;
  SQLDB& operator=(const SQLDB&) = delete;

  // The last failure's number (0 after success) and description.
  int32_t ErrNumber() const { return err_number_; }
  const std::string& ErrDescription() const { return err_description_; }

  // Seconds a Connect may wait for the server (15 unless set; 0 waits as long as the driver
  // does).
  int32_t ConnectionTimeout() const { return connection_timeout_; }
  void SetConnectionTimeout(int32_t lSeconds) { connection_timeout_ = lSeconds; }

  // Opens the connection `sConnectionString` names (see the file comment), closing an open one
  // first. Returns false with the driver's diagnostics (or 3704 for an empty string).
  bool Connect(const std::string& sConnectionString);
  // Closes the connection. Recordsets still open keep it until they are closed. Returns true.
  bool Disconnect();
  // True while a connection is open.
  bool IsConnected() const;

  // The count of rows the last RunSQLNoReturn or RunSQLReturnRS (or record statement) inserted,
  // updated or deleted, as the driver reports it (0 for a statement that changes no rows, such
  // as CREATE TABLE; what a SELECT gives is the driver's choice); -1 after a failure, before any
  // statement, or when the driver cannot tell.
  int32_t RecordsAffected() const { return records_affected_; }

  // Executes `sSQL` with `vParams` bound to its markers. Returns false on failure.
  bool RunSQLNoReturn(const std::string& sSQL, const Variant& vParams = Variant());
  // The forward-only recordset of `sSQL` (a recordset with no fields for a statement that
  // returns no rows), or null on failure.
  std::shared_ptr<Recordset> RunSQLReturnRS(const std::string& sSQL,
                                            const Variant& vParams = Variant());

  // Stored procedures, called through "{call name(?,...)}". `sSPName` may hold letters, digits,
  // "_", "." and "$" only, else 5 "Invalid procedure call".
  // The recordset of the procedure's result, or null on failure.
  std::shared_ptr<Recordset> RunSPReturnRS(const std::string& sSPName,
                                           const Variant& vParams = Variant());
  // The procedure's return value ("{? = call name(...)}"), or 0 on failure.
  int32_t RunSPReturnInteger(const std::string& sSPName, const Variant& vParams = Variant());
  // The values of the output and input/output parameters, in order, as an array from 0 (empty
  // on failure).
  VariantArray RunSPReturnParams(const std::string& sSPName, const Variant& vParams = Variant());
  // Calls the procedure and drops any result. Returns false on failure.
  bool RunSPNoReturn(const std::string& sSPName, const Variant& vParams = Variant());

  // An updatable recordset of every row of table `sTableName` (quoted with the driver's quote
  // character, a dotted name part by part), or null on failure.
  std::shared_ptr<Recordset> OpenTable(const std::string& sTableName);

  // Transactions: BeginTrans turns automatic commit off until CommitTrans or RollbackTrans ends
  // the transaction. Each returns false on failure.
  bool BeginTrans();
  bool CommitTrans();
  bool RollbackTrans();

  // The quoting rules of the record statements (see sql_text.h).
  std::string EscapeName(const std::string& sName) const;
  std::string EscapeValue(const std::string& sValue) const;
  std::string EscapeLike(const std::string& sPattern) const;

  // Builds UPDATE [TableName]SET ... WHERE  ... from the flat pair arrays `Values` and `Wheres`
  // and runs it. On a failed statement ErrDescription is the driver's description followed by
  // "(" + statement + ")". Returns false on any failure (a bad array included).
  bool UpdateRecordSQL(const std::string& TableName, const Variant& Values, const Variant& Wheres,
                       bool Unicode = false);
  // Builds INSERT INTO [TableName](...) values (...) from the parallel arrays and runs it;
  // failures as UpdateRecordSQL.
  bool InsertRecordSQL(const std::string& TableName, const Variant& FieldList,
                       const Variant& Values, bool Unicode = false);
  // Assigns each named field of `oRS`'s current row and calls its Update. Returns false with
  // the recordset's error (91 for a null recordset).
  bool UpdateRecord(const std::shared_ptr<Recordset>& oRS, const Variant& FieldList,
                    const Variant& Values);
  // The same after calling AddNew first.
  bool InsertRecordRS(const std::shared_ptr<Recordset>& oRS, const Variant& FieldList,
                      const Variant& Values);

 private:
  template <class R, class F>
  R Guarded(std::string_view routine, R failure, F&& work);
  void ClearError();
  void RecordError(std::string_view routine, int32_t number, std::string description);
  internal::OdbcConnection& RequireConnection() const;
  bool RunBuiltStatement(const std::string& statement);
  void AssignFields(Recordset& recordset, const Variant& FieldList, const Variant& Values);
  internal::Execution Call(const std::string& name, const Variant& params, bool with_return);

  std::shared_ptr<internal::OdbcConnection> connection_;
  int32_t connection_timeout_ = 15;
  int32_t records_affected_ = -1;
  int32_t err_number_ = 0;
  std::string err_description_;
};

}  // namespace pelmora::db

#endif  // PELMORA_DB_SQLDB_H_
