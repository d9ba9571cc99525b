#!/usr/bin/env bash
# Both programs name the same version, commit and build type, and the service's --help lists
# --version.
#   version_test.sh PELMORA PELMORAD
set -uo pipefail
tool=$("$1" --version) || { echo "FAIL pelmora --version exited $?"; exit 1; }
service=$("$2" --version) || { echo "FAIL pelmorad --version exited $?"; exit 1; }
form='^pelmorad? [0-9]+\.[0-9]+\.[0-9]+ \(commit ([0-9a-f]{12}|unknown), [A-Za-z]+ build\)$'
failures=0
for line in "$tool" "$service"; do
  [[ $line =~ $form ]] || { echo "FAIL unexpected version line: $line"; failures=$((failures + 1)); }
done
[[ ${tool#pelmora } == "${service#pelmorad }" ]] ||
  { echo "FAIL the programs disagree: $tool / $service"; failures=$((failures + 1)); }
"$2" --help | grep -q -- '--version' ||
  { echo "FAIL pelmorad --help does not list --version"; failures=$((failures + 1)); }
echo "$tool"; echo "$service"
[[ $failures -eq 0 ]]
