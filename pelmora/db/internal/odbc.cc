#include "pelmora/db/internal/odbc.h"

#include <fmt/format.h>

#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "pelmora/common/error.h"

namespace pelmora::db::internal {
namespace {

constexpr std::string_view kSource = "SQLDB";
// Drivers keep few records; the walk stops here whatever they claim.
constexpr SQLSMALLINT kMaxDiagnosticRecords = 16;

struct StateClassNumber {
  std::string_view state_class;
  int32_t number;
};

// SQLSTATE classes (or whole states) and the error numbers callers see for them.
constexpr std::array<StateClassNumber, 8> kStateNumbers = {{
    {"HYT", kErrorTimeout},
    {"08", kErrorProviderFailed},
    {"28", kErrorLoginFailed},
    {"42", kErrorInCommand},
    {"37", kErrorInCommand},
    {"23", kErrorIntegrityViolation},
    {"22", kErrorCannotConvert},
    {"07", kErrorCannotConvert},
}};

struct ObjectErrorText {
  int32_t number;
  std::string_view text;
};

constexpr std::array<ObjectErrorText, 5> kObjectErrorTexts = {{
    {kErrorObjectClosed, "Operation is not allowed when the object is closed."},
    {kErrorNoCurrentRecord,
     "Either BOF or EOF is True, or the current record has been deleted. Requested operation "
     "requires a current record."},
    {kErrorItemNotFound,
     "Item cannot be found in the collection corresponding to the requested name or ordinal."},
    {kErrorNotUpdatable,
     "Current Recordset does not support updating. This may be a limitation of the provider, or "
     "of the selected locktype."},
    {kErrorRowNotFound,
     "Row cannot be located for updating. Some values may have been changed since it was last "
     "read."},
}};

}  // namespace

Error ObjectError(int32_t number) {
  for (const ObjectErrorText& entry : kObjectErrorTexts) {
    if (entry.number == number) {
      return Error(number, std::string(entry.text), std::string(kSource));
    }
  }
  return Error(number, "Unknown error", std::string(kSource));
}

int32_t ErrorNumberForState(std::string_view state) {
  for (const StateClassNumber& entry : kStateNumbers) {
    if (state.substr(0, entry.state_class.size()) == entry.state_class) return entry.number;
  }
  return kErrorProviderFailed;
}

OdbcHandle::OdbcHandle(OdbcHandle&& other) noexcept
    : type_(other.type_), handle_(std::exchange(other.handle_, nullptr)) {}

OdbcHandle& OdbcHandle::operator=(OdbcHandle&& other) noexcept {
  if (this != &other) {
    Reset();
    type_ = other.type_;
    handle_ = std::exchange(other.handle_, nullptr);
  }
  return *this;
}

void OdbcHandle::Reset() {
  if (handle_ == nullptr) return;
  // Freeing cannot be reported to anyone; a statement's open cursor goes with it.
  SQLFreeHandle(type_, handle_);
  handle_ = nullptr;
}

OdbcHandle AllocateHandle(SQLSMALLINT type, const OdbcHandle* parent) {
  SQLHANDLE handle = nullptr;
  SQLHANDLE parent_handle = parent == nullptr ? nullptr : parent->Get();
  SQLRETURN rc = SQLAllocHandle(type, parent_handle, &handle);
  if (SQL_SUCCEEDED(rc)) return OdbcHandle(type, handle);
  if (parent != nullptr) RaiseDiagnostics(*parent, "The ODBC handle could not be allocated.");
  throw Error(kErrorProviderFailed, "The ODBC environment could not be allocated.",
              std::string(kSource));
}

std::string DescribeDiagnostics(const OdbcHandle& handle, std::string* state) {
  std::string description;
  if (state != nullptr) state->clear();
  for (SQLSMALLINT record = 1; record <= kMaxDiagnosticRecords; ++record) {
    SQLCHAR sql_state[6] = {};
    SQLINTEGER native = 0;
    std::array<SQLCHAR, 1024> message{};
    SQLSMALLINT length = 0;
    SQLRETURN rc = SQLGetDiagRec(handle.Type(), handle.Get(), record, sql_state, &native,
                                 message.data(), message.size(), &length);
    if (!SQL_SUCCEEDED(rc)) break;
    std::string_view text(reinterpret_cast<const char*>(message.data()));
    std::string_view code(reinterpret_cast<const char*>(sql_state));
    if (state != nullptr && state->empty()) *state = code;
    if (!description.empty()) description += "; ";
    description += fmt::format("{} (SQLSTATE {}, native error {})", text, code, native);
  }
  return description;
}

void RaiseDiagnostics(const OdbcHandle& handle, std::string_view fallback) {
  std::string state;
  std::string description = DescribeDiagnostics(handle, &state);
  if (description.empty()) {
    throw Error(kErrorProviderFailed, std::string(fallback), std::string(kSource));
  }
  throw Error(ErrorNumberForState(state), description, std::string(kSource));
}

SQLRETURN Check(SQLRETURN rc, const OdbcHandle& handle, bool no_data_ok) {
  if (SQL_SUCCEEDED(rc) || (no_data_ok && rc == SQL_NO_DATA)) return rc;
  RaiseDiagnostics(handle, fmt::format("The ODBC call failed with return code {}.", rc));
}

std::shared_ptr<OdbcConnection> OdbcConnection::Open(const std::string& connection_string,
                                                     int32_t login_timeout_seconds) {
  std::shared_ptr<OdbcConnection> connection(new OdbcConnection());
  connection->env_ = AllocateHandle(SQL_HANDLE_ENV, nullptr);
  const OdbcHandle& env = connection->env_;
  Check(SQLSetEnvAttr(env.Get(), SQL_ATTR_ODBC_VERSION,
                      reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0),
        env);
  connection->dbc_ = AllocateHandle(SQL_HANDLE_DBC, &env);
  const OdbcHandle& dbc = connection->dbc_;
  Check(SQLSetConnectAttr(dbc.Get(), SQL_ATTR_LOGIN_TIMEOUT,
                          reinterpret_cast<SQLPOINTER>(static_cast<SQLLEN>(login_timeout_seconds)),
                          0),
        dbc);
  std::string text = connection_string;
  Check(SQLDriverConnect(dbc.Get(), nullptr, reinterpret_cast<SQLCHAR*>(text.data()),
                         static_cast<SQLSMALLINT>(text.size()), nullptr, 0, nullptr,
                         SQL_DRIVER_NOPROMPT),
        dbc);
  connection->connected_ = true;
  SQLCHAR quote[4] = {};
  SQLSMALLINT length = 0;
  if (SQL_SUCCEEDED(SQLGetInfo(dbc.Get(), SQL_IDENTIFIER_QUOTE_CHAR, quote, sizeof quote,
                               &length)) &&
      length == 1 && quote[0] != ' ') {
    connection->quote_ = static_cast<char>(quote[0]);
  }
  return connection;
}

OdbcHandle OdbcConnection::NewStatement() const {
  if (!dbc_) throw ObjectError(kErrorObjectClosed);
  return AllocateHandle(SQL_HANDLE_STMT, &dbc_);
}

const OdbcHandle& OdbcConnection::ReusableStatement() {
  if (!reusable_) reusable_ = NewStatement();
  return reusable_;
}

void OdbcConnection::SetAutoCommit(bool on) {
  if (!dbc_) throw ObjectError(kErrorObjectClosed);
  SQLULEN value = on ? SQL_AUTOCOMMIT_ON : SQL_AUTOCOMMIT_OFF;
  Check(SQLSetConnectAttr(dbc_.Get(), SQL_ATTR_AUTOCOMMIT, reinterpret_cast<SQLPOINTER>(value), 0),
        dbc_);
}

void OdbcConnection::EndTransaction(bool commit) {
  if (!dbc_) throw ObjectError(kErrorObjectClosed);
  Check(SQLEndTran(SQL_HANDLE_DBC, dbc_.Get(), commit ? SQL_COMMIT : SQL_ROLLBACK), dbc_);
}

void OdbcConnection::Close() {
  reusable_.Reset();
  if (connected_) {
    // A connection that is gone already cannot refuse to be forgotten.
    SQLDisconnect(dbc_.Get());
    connected_ = false;
  }
  dbc_.Reset();
  env_.Reset();
}

}  // namespace pelmora::db::internal
