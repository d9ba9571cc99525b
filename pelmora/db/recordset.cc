#include "pelmora/db/recordset.h"

#include <strings.h>

#include <utility>

#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"
#include "pelmora/db/internal/odbc.h"
#include "pelmora/db/internal/odbc_values.h"
#include "pelmora/db/internal/table_writer.h"

namespace pelmora::db {

using internal::ObjectError;

Recordset::Recordset(std::shared_ptr<internal::OdbcConnection> connection,
                     internal::OdbcHandle&& statement, const std::string* table)
    : connection_(std::move(connection)),
      statement_(std::make_unique<internal::OdbcHandle>(std::move(statement))) {
  columns_ = internal::DescribeColumns(*statement_);
  if (table != nullptr) {
    std::vector<std::string> names;
    for (const internal::ColumnInfo& column : columns_) names.push_back(column.name);
    writer_ = std::make_unique<internal::TableWriter>(*connection_, *table, std::move(names));
  }
  Fetch();
}

Recordset::~Recordset() = default;

void Recordset::RequireOpen() const {
  if (!IsOpen()) throw ObjectError(internal::kErrorObjectClosed);
}

void Recordset::Fetch() {
  values_.clear();
  eof_ = true;
  if (!*statement_ || columns_.empty()) {
    statement_->Reset();
    return;
  }
  if (internal::Check(SQLFetch(statement_->Get()), *statement_, true) == SQL_NO_DATA) {
    // The cursor is released at the end so that it holds no locks while the recordset lives.
    statement_->Reset();
    return;
  }
  for (size_t i = 0; i < columns_.size(); ++i) {
    values_.push_back(
        internal::ReadColumn(*statement_, static_cast<SQLUSMALLINT>(i + 1), columns_[i]));
  }
  eof_ = false;
}

bool Recordset::Eof() const {
  RequireOpen();
  return eof_;
}

void Recordset::MoveNext() {
  RequireOpen();
  if (eof_) throw ObjectError(internal::kErrorNoCurrentRecord);
  Update();
  Fetch();
}

int32_t Recordset::FieldCount() const {
  RequireOpen();
  return static_cast<int32_t>(columns_.size());
}

std::string Recordset::FieldName(int32_t index) const {
  RequireOpen();
  if (index < 0 || static_cast<size_t>(index) >= columns_.size()) {
    throw ObjectError(internal::kErrorItemNotFound);
  }
  return columns_[index].name;
}

int32_t Recordset::FieldOrdinal(const Variant& index) const {
  RequireOpen();
  if (index.IsNumeric()) {
    int32_t ordinal = index.ToLong();
    if (ordinal < 0 || static_cast<size_t>(ordinal) >= columns_.size()) {
      throw ObjectError(internal::kErrorItemNotFound);
    }
    return ordinal;
  }
  std::string name = index.ToString();
  for (size_t i = 0; i < columns_.size(); ++i) {
    if (EqualsFolded(columns_[i].name, name)) return static_cast<int32_t>(i);
  }
  throw ObjectError(internal::kErrorItemNotFound);
}

Variant Recordset::FieldValue(const Variant& index) const {
  int32_t ordinal = FieldOrdinal(index);
  if (mode_ != EditMode::kNone && edits_[ordinal]) return *edits_[ordinal];
  if (mode_ == EditMode::kAdd) return Variant(Null{});
  if (eof_) throw ObjectError(internal::kErrorNoCurrentRecord);
  return values_[ordinal];
}

void Recordset::SetFieldValue(const Variant& index, const Variant& value) {
  int32_t ordinal = FieldOrdinal(index);
  if (!writer_) throw ObjectError(internal::kErrorNotUpdatable);
  if (mode_ == EditMode::kNone) {
    if (eof_) throw ObjectError(internal::kErrorNoCurrentRecord);
    mode_ = EditMode::kEdit;
    edits_.assign(columns_.size(), std::nullopt);
  }
  edits_[ordinal] = value;
}

void Recordset::AddNew() {
  RequireOpen();
  if (!writer_) throw ObjectError(internal::kErrorNotUpdatable);
  Update();
  mode_ = EditMode::kAdd;
  edits_.assign(columns_.size(), std::nullopt);
}

void Recordset::Update() {
  RequireOpen();
  if (mode_ == EditMode::kNone) return;
  if (mode_ == EditMode::kAdd) {
    writer_->Insert(*connection_, edits_);
    // The new row becomes the current row, as far as this recordset knows it.
    values_.assign(columns_.size(), Variant(Null{}));
    eof_ = false;
  } else {
    writer_->Update(*connection_, values_, edits_);
  }
  for (size_t i = 0; i < edits_.size(); ++i) {
    if (edits_[i]) values_[i] = *edits_[i];
  }
  mode_ = EditMode::kNone;
  edits_.clear();
}

void Recordset::Close() {
  if (statement_) statement_->Reset();
  writer_.reset();
  connection_.reset();
  values_.clear();
  edits_.clear();
  mode_ = EditMode::kNone;
  eof_ = true;
}

}  // namespace pelmora::db
