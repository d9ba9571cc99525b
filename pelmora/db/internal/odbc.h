// The ODBC layer under SQLDB: owned handles, diagnostics turned into numbered errors, and one
// open connection with its environment.
//
// Every function here raises pelmora::Error on failure: the number comes from the SQLSTATE of
// the first diagnostic record (see ErrorNumberForState), the description lists every record as
// "message (SQLSTATE s, native error n)", joined by "; ".
#ifndef PELMORA_DB_INTERNAL_ODBC_H_
#define PELMORA_DB_INTERNAL_ODBC_H_

#include <sql.h>
#include <sqlext.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "pelmora/common/error.h"

namespace pelmora::db::internal {

// ADO-style error numbers the SQLSTATE classes map to.
inline constexpr int32_t kErrorProviderFailed = -2147467259;    // generic failure
inline constexpr int32_t kErrorInCommand = -2147217900;         // syntax, unknown object
inline constexpr int32_t kErrorIntegrityViolation = -2147217873;
inline constexpr int32_t kErrorCannotConvert = -2147217913;
inline constexpr int32_t kErrorTimeout = -2147217871;
inline constexpr int32_t kErrorLoginFailed = -2147217843;
inline constexpr int32_t kErrorRowNotFound = -2147217864;
// Errors of the recordset and connection objects themselves.
inline constexpr int32_t kErrorObjectClosed = 3704;
inline constexpr int32_t kErrorNoCurrentRecord = 3021;
inline constexpr int32_t kErrorItemNotFound = 3265;
inline constexpr int32_t kErrorNotUpdatable = 3251;

// The Error of the recordset and connection objects' own numbers (3704, 3021, 3265, 3251 and
// the row that cannot be located) with their fixed texts.
Error ObjectError(int32_t number);

// The error number for a five-character SQLSTATE (by its class, the first two characters).
int32_t ErrorNumberForState(std::string_view state);

// One ODBC handle of any type, freed when the object is destroyed. Move-only.
class OdbcHandle {
 public:
  OdbcHandle() = default;
  OdbcHandle(SQLSMALLINT type, SQLHANDLE handle) : type_(type), handle_(handle) {}
  OdbcHandle(OdbcHandle&& other) noexcept;
  OdbcHandle& operator=(OdbcHandle&& other) noexcept;
  OdbcHandle(const OdbcHandle&) = delete;
  OdbcHandle& operator=(const OdbcHandle&) = delete;
  ~OdbcHandle() { Reset(); }

  SQLHANDLE Get() const { return handle_; }
  SQLSMALLINT Type() const { return type_; }
  explicit operator bool() const { return handle_ != nullptr; }
  // Frees the handle now (a statement is closed first).
  void Reset();

 private:
  SQLSMALLINT type_ = 0;
  SQLHANDLE handle_ = nullptr;
};

// A new handle of `type` under `parent`. Raises when the driver manager refuses it.
OdbcHandle AllocateHandle(SQLSMALLINT type, const OdbcHandle* parent);

// Every diagnostic record of `handle` as one description; `state` receives the first SQLSTATE
// ("" when there is no record).
std::string DescribeDiagnostics(const OdbcHandle& handle, std::string* state);

// Raises the error that the diagnostics of `handle` describe, or `fallback` (with the generic
// failure number) when the handle has no record.
[[noreturn]] void RaiseDiagnostics(const OdbcHandle& handle, std::string_view fallback);

// Raises for a failed return code (anything but SQL_SUCCESS, SQL_SUCCESS_WITH_INFO and, when
// `no_data_ok`, SQL_NO_DATA) with the diagnostics of `handle`; otherwise returns `rc`.
SQLRETURN Check(SQLRETURN rc, const OdbcHandle& handle, bool no_data_ok = false);

// An open connection with its own environment. Statements made from it must be destroyed
// before it is.
class OdbcConnection {
 public:
  // Connects with a full ODBC connection string ("Driver=...;..." or "DSN=..."). Blocks for the
  // driver's connect, bounded by `login_timeout_seconds` where the driver honours it. Raises the
  // driver's diagnostics.
  static std::shared_ptr<OdbcConnection> Open(const std::string& connection_string,
                                              int32_t login_timeout_seconds);

  // A new statement handle on this connection. Raises 3704 once closed.
  OdbcHandle NewStatement() const;

  // The connection's one reusable statement handle, for statements whose results are dropped;
  // callers close its cursor and unbind its parameters after each use. Raises 3704 once closed.
  const OdbcHandle& ReusableStatement();

  // The character the driver quotes identifiers with ('"' when it names none).
  char IdentifierQuote() const { return quote_; }

  // Turns automatic commit on or off, and commits or rolls back the open transaction.
  void SetAutoCommit(bool on);
  void EndTransaction(bool commit);

  bool IsOpen() const { return static_cast<bool>(dbc_); }
  // Disconnects and frees the handles; harmless when already closed.
  void Close();
  ~OdbcConnection() { Close(); }

 private:
  OdbcConnection() = default;
  OdbcHandle env_;
  OdbcHandle dbc_;
  OdbcHandle reusable_;
  bool connected_ = false;
  char quote_ = '"';
};

}  // namespace pelmora::db::internal

#endif  // PELMORA_DB_INTERNAL_ODBC_H_
