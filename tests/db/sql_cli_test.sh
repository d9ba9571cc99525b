#!/usr/bin/env bash
# Drives `pelmora sql` on a scratch SQLite database: statements without rows, the aligned table,
# CSV and JSON forms, a failing statement (exit 1, error on standard error) and a usage error.
#   sql_cli_test.sh PELMORA_BINARY SCRATCH_DIR
set -uo pipefail
tool=$1
dir=$2
rm -rf "$dir" && mkdir -p "$dir" && cd "$dir" || exit 2
failures=0
db="$dir/people.db"

check() {  # check NAME EXPECTED ACTUAL
  if [[ "$2" == "$3" ]]; then echo "ok   $1"; else echo "FAIL $1: expected [$2], got [$3]"; failures=$((failures + 1)); fi
}

check "create" "0 rows changed" "$("$tool" sql "$db" "CREATE TABLE people (id INTEGER, name TEXT)")"
check "insert" "2 rows changed" "$("$tool" sql "$db" "INSERT INTO people VALUES (1, 'Ada'), (10, NULL)")"
check "table" $'id | name\n---+-----\n 1 | Ada \n10 | NULL\n(2 rows)' \
  "$("$tool" sql "$db" "SELECT id, name FROM people ORDER BY id")"
check "csv" $'id,name\r\n1,Ada\r\n10,\r' "$("$tool" sql "$db" "SELECT * FROM people ORDER BY id" --csv)"
check "json" '[{"id":1,"name":"Ada"},{"id":10,"name":null}]' \
  "$("$tool" sql "$db" "SELECT * FROM people ORDER BY id" --json | tr -d ' \n')"
"$tool" sql "$db" "SELECT * FROM nobody" 2>err >/dev/null
check "failure status" 1 $?
check "failure text" \
  "pelmora: sql: error -2147467259: [SQLite]no such table: nobody (1) (SQLSTATE HY000, native error 1)" \
  "$(cat err)"
"$tool" sql "$db" >/dev/null 2>&1
check "usage status" 2 $?

echo "$failures failure(s)"
[[ $failures -eq 0 ]]
