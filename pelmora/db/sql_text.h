// The SQL text of SQLDB's record statements: quoted names, quoted literals, LIKE operands and
// the UPDATE and INSERT statements built from arrays of names and values.
//
//   EscapeName("a]b")                 // "[a]]b]"
//   EscapeLike("a**b?")               // "'a%b_' ESCAPE '\'"
//   BuildUpdateStatement("T", {"A", 1, "B", "x"}, {"K", 5}, false)
//                                     // "UPDATE [T]SET [A]=1,[B]='x' WHERE  [K]=5"
//
// The statement text is fixed character for character, the missing blank before "SET" and the
// two blanks after "WHERE" included. Numbers are written the same way whatever the locale.
#ifndef PELMORA_DB_SQL_TEXT_H_
#define PELMORA_DB_SQL_TEXT_H_

#include <string>
#include <string_view>

#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora::db {

// "[" + `name` with every "]" doubled + "]".
PELMORA_API std::string EscapeName(std::string_view name);

// "'" + `text` with every "'" doubled + "'".
PELMORA_API std::string EscapeValue(std::string_view text);

// The quoted operand of LIKE for a pattern with "*" (any run) and "?" (one character): a run of
// "*" becomes one "%", "?" becomes "_", "[", "%", "_" and "\" are escaped with a backslash, "'"
// is doubled; the result ends with the clause "' ESCAPE '\'".
PELMORA_API std::string EscapeLike(std::string_view pattern);

// The SQL literal of one value: NULL for Empty and Null; numbers in invariant form; Boolean as 1
// or 0; dates as 'YYYY-MM-DD HH:NN:SS' (never prefixed); everything else as the quoted text of the
// value, prefixed with N when `unicode` is true. Raises pelmora::Error 13 "Type mismatch" for
// arrays and objects, which have no text.
PELMORA_API std::string ValueLiteral(const Variant& value, bool unicode);

// UPDATE [table]SET [name]=literal,... WHERE  [name]=literal AND ... from two flat pair arrays
// (name, value, name, value, ...). Raises pelmora::Error 9 "Subscript out of range" when a name
// has no value element, and what ValueLiteral raises. Empty arrays give a malformed statement,
// which is returned as it is.
PELMORA_API std::string BuildUpdateStatement(std::string_view table_name,
                                             const VariantArray& values, const VariantArray& wheres,
                                             bool unicode);

// INSERT INTO [table]([name],...) values (literal,...) from parallel arrays, walked over the
// bounds of `field_list`. Raises pelmora::Error 9 when `values` has no element for an index of
// `field_list`, and what ValueLiteral raises.
PELMORA_API std::string BuildInsertStatement(std::string_view table_name,
                                             const VariantArray& field_list,
                                             const VariantArray& values, bool unicode);

}  // namespace pelmora::db

#endif  // PELMORA_DB_SQL_TEXT_H_
