#include "pelmora/db/internal/execution.h"

#include <cctype>
#include <string>
#include <utility>

#include "pelmora/common/error.h"

namespace pelmora::db::internal {
namespace {

constexpr int32_t kInvalidArgument = 5;

CallParameter ReadElement(const Variant& element) {
  if (!element.IsArray()) return CallParameter{SQL_PARAM_INPUT, element};
  const VariantArray& parameter = element.ToArray();
  if (parameter.items.size() < 2) throw RuntimeError(kInvalidArgument, "SQLDB");
  int32_t direction = parameter.At(parameter.lower_bound + 1).ToLong();
  Variant value = parameter.items.size() > 2 ? parameter.At(parameter.lower_bound + 2) : Variant();
  switch (direction) {
    case 1:
      return CallParameter{SQL_PARAM_INPUT, std::move(value)};
    case 2:
      return CallParameter{SQL_PARAM_OUTPUT, std::move(value)};
    case 3:
      return CallParameter{SQL_PARAM_INPUT_OUTPUT, std::move(value)};
    default:
      throw RuntimeError(kInvalidArgument, "SQLDB");
  }
}

}  // namespace

std::vector<CallParameter> ReadParameters(const Variant& params) {
  std::vector<CallParameter> parameters;
  if (params.IsEmpty()) return parameters;
  if (!params.IsArray()) {
    parameters.push_back(ReadElement(params));
    return parameters;
  }
  for (const Variant& element : params.ToArray().items) parameters.push_back(ReadElement(element));
  return parameters;
}

VariantArray Execution::Outputs() const {
  VariantArray outputs;
  for (size_t i = 0; i < parameters.size(); ++i) {
    if (io_types[i] != SQL_PARAM_INPUT) outputs.items.push_back(parameters[i].Value());
  }
  return outputs;
}

namespace {

// Returns the count of rows the statement changed, -1 when the driver does not know.
int64_t BindAndExecute(const OdbcHandle& statement, const std::string& sql,
                       const std::vector<CallParameter>& parameters,
                       std::deque<BoundParameter>& bound) {
  for (const CallParameter& parameter : parameters) {
    bound.emplace_back(parameter.value, parameter.io_type);
    bound.back().Bind(statement, static_cast<SQLUSMALLINT>(bound.size()));
  }
  // The driver only reads the text; the interface predates const.
  auto* text = reinterpret_cast<SQLCHAR*>(const_cast<char*>(sql.data()));
  Check(SQLExecDirect(statement.Get(), text, static_cast<SQLINTEGER>(sql.size())), statement, true);
  SQLLEN rows = -1;
  if (!SQL_SUCCEEDED(SQLRowCount(statement.Get(), &rows))) rows = -1;
  return rows;
}

// Closes the cursor and unbinds the parameters of a reusable statement however the use ended.
struct StatementReset {
  const OdbcHandle& statement;
  bool has_parameters;
  ~StatementReset() {
    SQLFreeStmt(statement.Get(), SQL_CLOSE);
    if (has_parameters) SQLFreeStmt(statement.Get(), SQL_RESET_PARAMS);
  }
};

}  // namespace

Execution Execute(const OdbcConnection& connection, const std::string& sql,
                  const std::vector<CallParameter>& parameters) {
  Execution execution{connection.NewStatement(), {}, {}};
  for (const CallParameter& parameter : parameters) execution.io_types.push_back(parameter.io_type);
  execution.rows_affected =
      BindAndExecute(execution.statement, sql, parameters, execution.parameters);
  return execution;
}

int64_t ExecuteDroppingResults(OdbcConnection& connection, const std::string& sql,
                               const std::vector<CallParameter>& parameters) {
  const OdbcHandle& statement = connection.ReusableStatement();
  StatementReset reset{statement, !parameters.empty()};
  std::deque<BoundParameter> bound;
  return BindAndExecute(statement, sql, parameters, bound);
}

std::string CallEscape(std::string_view name, size_t count, bool with_return) {
  if (name.empty()) throw RuntimeError(kInvalidArgument, "SQLDB");
  for (char c : name) {
    bool allowed = std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '$';
    if (!allowed) throw RuntimeError(kInvalidArgument, "SQLDB");
  }
  std::string markers;
  for (size_t i = 0; i < count; ++i) markers += i == 0 ? "?" : ",?";
  return std::string("{") + (with_return ? "? = " : "") + "call " + std::string(name) + "(" +
         markers + ")}";
}

std::string NormalizeConnectionString(std::string_view text) {
  if (text.find('=') != std::string_view::npos) return std::string(text);
  return "Driver=SQLite3;Database=" + std::string(text);
}

}  // namespace pelmora::db::internal
