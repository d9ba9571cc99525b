#!/usr/bin/env bash
# Installs the library into a scratch prefix and compiles every installed header on its own, as
# a program outside the tree would include it: `#include <pelmora/...>` with only the prefix's
# include folder on the path. A header that needs another one first, or one that is not
# installed, fails here.
#   installed_headers_test.sh BUILD_DIR CXX
set -euo pipefail
build=$1 cxx=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
include=$scratch/prefix/include
mapfile -t headers < <(cd "$include" && find pelmora -name '*.h' | sort)
(( ${#headers[@]} > 0 )) || { echo "no headers installed under $include" >&2; exit 1; }

check_one() {
  local header=$1 probe
  probe=$(mktemp "$scratch/probe-XXXXXX.cc")
  printf '#include <%s>\n' "$header" >"$probe"
  if ! "$cxx" -std=c++20 -fsyntax-only -Wall -Wextra -I "$include" "$probe" 2>"$probe.err"; then
    echo "$header does not compile alone:" >&2
    cat "$probe.err" >&2
    return 1
  fi
}
export -f check_one
export scratch include cxx
status=0
printf '%s\n' "${headers[@]}" | xargs -P 2 -I{} bash -c 'check_one "$1"' _ {} || status=1

# No installed header names a header that is not installed.
for header in "${headers[@]}"; do
  while read -r named; do
    [[ -f "$include/$named" ]] || { echo "$header includes $named, which is not installed" >&2; status=1; }
  done < <(sed -n 's/^#include "\(pelmora\/[^"]*\)"/\1/p' "$include/$header")
done
(( status == 0 )) && echo "${#headers[@]} installed headers compile alone"
exit $status
