#!/usr/bin/env bash
# Every program the tests and scripts call is installed by `scripts/bootstrap --tests`, and every
# header the shipped code includes by `scripts/bootstrap` alone, so a missing install step fails
# here instead of on a fresh machine.
#   programs_test.sh SOURCE_DIR
# 1. The programs the tests start (their Debian package beside them) must be on this machine
#    and their package essential or listed in scripts/bootstrap.
# 2. Every command word of the shell tests and scripts that is a program here must come from an
#    essential (or required) package or from one scripts/bootstrap lists.
# 3. (below) the headers the shipped code includes come from the base set.
set -uo pipefail
source_dir=$1
bootstrap=$source_dir/scripts/bootstrap
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }

listed() { grep -Eq "(^|[( ])$1( |\)|$)" "$bootstrap"; }
# Whether every Debian 12 system has the package, or scripts/bootstrap installs it.
provided() {
  local status
  status=$(dpkg-query -W -f='${Essential} ${Priority}' "$1" 2>/dev/null)
  [[ $status == yes* || $status == *required ]] || listed "$1"
}

# program  package  (postgres lives in a versioned folder outside PATH)
programs=(
  "cmake cmake" "ninja ninja-build" "ccache ccache" "git git" "pkg-config pkg-config"
  "clang clang" "zip zip" "unzip unzip" "curl curl" "nginx nginx" "python3 python3-dev"
  "pytest-3 python3-pytest" "sqlite3 sqlite3" "ip iproute2" "ansible ansible-core"
  "ansible-playbook ansible-core" "openssl openssl" "xxd xxd" "postgres postgresql"
  "odbcinst unixodbc" "uptime procps" "ldd libc-bin"
)
for entry in "${programs[@]}"; do
  read -r program package <<<"$entry"
  provided "$package" || fail "$program: its package $package is not in scripts/bootstrap"
  found=$(command -v "$program" || true)
  if [[ -z $found && $program == postgres ]]; then
    found=$(ls /usr/lib/postgresql/*/bin/postgres 2>/dev/null | head -n 1)
  fi
  [[ -n $found ]] || fail "$program is not installed (Debian package $package)"
done

# The command words of the shell tests and scripts: the first word of each line and of each
# piece after | ; && || $( or `.
scripts=("$source_dir"/tests/*.sh "$source_dir"/tests/*/*.sh "$source_dir"/scripts/* "$source_dir"/.ci/run)
words=$(sed -E 's/#.*$//; s/(\$\(|\||;|&&|`|\bthen\b|\bdo\b|\belse\b)/\n/g' "${scripts[@]}" |
  sed -E 's/^[[:space:]!({]*//' | grep -oE '^[a-z][a-z0-9_.+-]*' | sort -u)
for word in $words; do
  path=$(type -P "$word" 2>/dev/null) || continue  # a function, a variable or a keyword
  [[ $(type -t "$word") == file ]] || continue      # a shell builtin
  real=$(readlink -f "$path")
  package=$(dpkg -S "$path" 2>/dev/null || dpkg -S "$real" 2>/dev/null || dpkg -S "${real#/usr}" 2>/dev/null)
  package=${package%%:*}
  package=${package%%,*}
  if [[ -z $package ]]; then
    echo "note $word ($path) belongs to no Debian package"
    continue
  fi
  if provided "$package"; then
    echo "ok   $word ($package)"
  else
    fail "$word comes from $package, which scripts/bootstrap does not install"
  fi
done

# 3. Every system header the library, the tool and the service include (tests aside) comes from a
#    package of the base set, which is all scripts/run installs, or from the C and C++ libraries
#    that build-essential brings.
base=$(sed -n '/^base=(/,/^)/p' "$bootstrap")
headers=$(grep -rhoE '^#include <[^>]+>' "$source_dir"/pelmora "$source_dir"/pelmorad "$source_dir"/tools \
  --include='*.cc' --include='*.h' --exclude='*_test.cc' --exclude-dir=testing | sed -E 's/#include <(.*)>/\1/' | sort -u)
for header in $headers; do
  for folder in /usr/include /usr/include/x86_64-linux-gnu; do
    [[ -e $folder/$header ]] || continue
    package=$(dpkg -S "$folder/$header" 2>/dev/null | head -n 1)
    package=${package%%:*}
    [[ -z $package || $package =~ ^(libc6-dev|linux-libc-dev|libstdc\+\+-[0-9]+-dev)$ ]] && break
    grep -Eq "(^|[( ])$package( |\)|$)" <<<"$base" ||
      fail "<$header> comes from $package, which the base set of scripts/bootstrap lacks"
    break
  done
done

echo "$failures failure(s)"
[[ $failures -eq 0 ]]
