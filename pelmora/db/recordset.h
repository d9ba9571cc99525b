// A forward-only recordset: the rows of one statement, read one at a time.
//
//   std::shared_ptr<Recordset> rs = db.RunSQLReturnRS("SELECT id, name FROM people");
//   while (rs && !rs->Eof()) {
//     std::string name = rs->FieldValue("name").ToString();
//     rs->MoveNext();
//   }
//
// A recordset from SQLDB::OpenTable is also updatable: AddNew starts a new row, SetFieldValue
// assigns fields of the new or the current row, Update writes them with a parameterised INSERT
// or UPDATE (keyed on the primary key, or on every original value when the table has none).
//
// Members raise pelmora::Error: 3704 "Operation is not allowed when the object is closed." after
// Close, 3021 (no current record) when reading at the end, 3265 (item cannot be found) for an
// unknown field, 3251 (does not support updating) when writing to a read-only recordset, and the
// driver's diagnostics. Reading the next row blocks while the driver fetches it.
#ifndef PELMORA_DB_RECORDSET_H_
#define PELMORA_DB_RECORDSET_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora::db {

namespace internal {
class OdbcConnection;
class OdbcHandle;
class TableWriter;
struct ColumnInfo;
}  // namespace internal

class PELMORA_API Recordset : public std::enable_shared_from_this<Recordset> {
 public:
  // A recordset over `statement`, which has executed; positions on its first row. With
  // `table` it is updatable and writes to that table. Raises the driver's diagnostics.
  Recordset(std::shared_ptr<internal::OdbcConnection> connection, internal::OdbcHandle&& statement,
            const std::string* table = nullptr);
  ~Recordset();
  Recordset(const Recordset&) = delete;
  Recordset& operator=(const Recordset&) = delete;

  // True when there is no current row (past the last, or no rows at all).
  bool Eof() const;
  // Moves to the next row, writing pending changes first. Raises 3021 at the end.
  void MoveNext();
  // The number of fields of each row.
  int32_t FieldCount() const;
  // The name of field `index` (from 0). Raises 3265 outside the range.
  std::string FieldName(int32_t index) const;
  // The value of the field named by `index`: a number (from 0) or a name (any case). Raises
  // 3265 for no such field, 3021 when there is no current row.
  Variant FieldValue(const Variant& index) const;
  // Assigns a field of the new row (after AddNew) or of the current row; Update writes it.
  void SetFieldValue(const Variant& index, const Variant& value);
  // Starts a new row whose fields are unassigned. Raises 3251 when not updatable.
  void AddNew();
  // Writes the new row or the changed fields of the current row; nothing when nothing changed.
  // Raises -2147217864 when the current row is no longer in the table.
  void Update();
  // Releases the statement and the connection; later calls raise 3704. Harmless twice.
  void Close();

  // The number (from 0) of the field that `index` names, as FieldValue finds it. Raises 3265.
  int32_t FieldOrdinal(const Variant& index) const;

  bool IsOpen() const { return connection_ != nullptr; }

 private:
  void RequireOpen() const;
  void Fetch();

  enum class EditMode { kNone, kEdit, kAdd };

  std::shared_ptr<internal::OdbcConnection> connection_;
  std::unique_ptr<internal::OdbcHandle> statement_;
  std::vector<internal::ColumnInfo> columns_;
  std::vector<Variant> values_;
  bool eof_ = true;
  std::unique_ptr<internal::TableWriter> writer_;
  EditMode mode_ = EditMode::kNone;
  std::vector<std::optional<Variant>> edits_;
};

}  // namespace pelmora::db

#endif  // PELMORA_DB_RECORDSET_H_
