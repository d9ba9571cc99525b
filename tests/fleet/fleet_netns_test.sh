#!/usr/bin/env bash
# A fleet on separate network hosts: four network namespaces, each joined to this one by its own
# veth link (10.231.N.1 here, 10.231.N.2 there). Hosts 1 and 2 run pelmorad; host 3 runs nothing
# (it is down); host 4 runs pelmorad with another password (it refuses the login). A fleet `get`
# and `exec` across all four must succeed on 1 and 2 and show 3 and 4 as failed in the summary.
#   fleet_netns_test.sh PELMORA PELMORAD SCRATCH
# Exits 77 (skipped) where network namespaces cannot be made.
set -uo pipefail
tool=$1
service=$2
work=$3
tag=pf$$
failures=0

check() {  # check NAME EXPECTED ACTUAL
  if [[ "$2" == "$3" ]]; then echo "ok   $1"; else echo "FAIL $1: expected [$2], got [$3]"; failures=$((failures + 1)); fi
}

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
  for n in 1 2 3 4; do ip netns del "$tag-$n" 2>/dev/null; done
}
trap cleanup EXIT

if ! ip netns add "$tag-1" 2>/dev/null; then
  echo "SKIP: network namespaces cannot be made here (needs root and iproute2)"
  exit 77
fi
rm -rf "$work" && mkdir -p "$work" || exit 2

# Four hosts, each on its own link.
source "$(dirname "$0")/netns_hosts.sh"
make_hosts "$tag" 10.231 4

printf 'fleet password\n' > "$work/password"
good_hash=$(printf 'fleet password\n' | "$service" --hash-password)
other_hash=$(printf 'another password\n' | "$service" --hash-password)

# pelmorad in namespace N with its own drive C holding hello.txt; reports its port on a FIFO.
start_host() {  # start_host N HASH
  local n=$1 dir=$work/host$1
  mkdir -p "$dir/c"
  echo "hello from host $n" > "$dir/c/hello.txt"
  printf '[drives]\nC = "%s/c"\n[accounts.fleet]\npassword = "%s"\ncommands = true\nrun_as = "root"\n' \
    "$dir" "$2" > "$dir/pelmorad.toml"
  start_service_in "$tag" "$n" "$dir" "10.231.$n.2:8002" "$service"
}
start_host 1 "$good_hash"
start_host 2 "$good_hash"
start_host 4 "$other_hash"

run() { "$tool" admin --hosts '10.231.[1-4].2' --account fleet --password-file "$work/password" \
  --connect-timeout 3000 "$@"; }

# get: each host's file lands in its own folder; hosts 3 and 4 fail without stopping the others.
run --failed-file "$work/failed" get 'C:\hello.txt' "$work/got" > "$work/get.out" 2> "$work/get.err"
check "get exit status" 1 $?
check "host 1 file" "hello from host 1" "$(cat "$work/got/10.231.1.2/hello.txt" 2>&1)"
check "host 2 file" "hello from host 2" "$(cat "$work/got/10.231.2.2/hello.txt" 2>&1)"
check "failed hosts" "$(printf '10.231.3.2\n10.231.4.2')" "$(cat "$work/failed")"
check "summary totals" "4 hosts: 2 ok, 2 failed" "$(grep -o '4 hosts: 2 ok, 2 failed' "$work/get.err")"
check "host 3 is down" 1 "$(grep -c '^10.231.3.2 .*failed.*10061 ' "$work/get.err")"
check "host 4 refuses the login" 1 "$(grep -c '^10.231.4.2 .*failed.*1326 ' "$work/get.err")"

# exec (when the service runs commands): one JSON object per host.
run --json exec 'echo "up on $(cat /proc/sys/kernel/hostname)"' > "$work/exec.json" 2>&1
if grep -q 'command lines are not available' "$work"/host1/audit.log; then
  echo "note: this pelmorad runs no commands; the fleet exec is not checked"
else
  check "exec objects" 4 "$(grep -c '^{"host"' "$work/exec.json")"
  check "exec ok hosts" 2 "$(grep -c '"result":"ok"' "$work/exec.json")"
fi

if ((failures > 0)); then echo "$failures check(s) failed"; exit 1; fi
echo "all checks passed"
