#!/usr/bin/env bash
# A fleet through a bad network: six network namespaces, each joined to this one by its own veth
# link (10.232.N.1 here, 10.232.N.2 there), each with a pelmorad behind a different fault:
#   host 1, 2  healthy
#   host 3     200 ms added each way (a delaying TCP relay in front of the service)
#   host 4     5% of the packets of established connections dropped (nftables)
#   host 5     a slow link (tbf) that goes down in the middle of the transfer
#   host 6     a listener that accepts connections and never answers
# A fleet `get` across all six and a `put` across all but host 5, the bad hosts listed first,
# must report every host with the right result, number and text within the reply time-out; the
# healthy hosts must come back about as fast as in a run of the healthy hosts alone; and no
# partial file may be left, neither in the local target folders nor in the service's drives.
#   fleet_badnet_test.sh PELMORA PELMORAD SCRATCH [all|upload-cut|download-cut]
# The cut link has modes of its own, run apart from the main run:
#   upload-cut    a put with host 5's link cut mid-upload: the client's sends are bounded by the
#                 reply time-out, so the host is reported as 10060 well before the overall
#                 time-out that keeps the run bounded.
#   download-cut  a get with host 5's link cut mid-download: nothing of the file may be left in
#                 the local folder.
# Exits 77 (skipped) where network namespaces, nftables or tbf are not available.
set -uo pipefail
tool=$1
service=$2
work=$3
mode=${4:-all}
here=$(cd "$(dirname "$0")" && pwd)
tag=pb$$
failures=0
timeout_ms=3000      # each reply (--timeout) and each connection (--connect-timeout)
big=$((1 << 22))     # bytes of the file every host sends and receives
cut_file=$((1 << 25))  # bytes of host 5's file: far more than crosses its link before the cut
cut_after=$((1 << 20)) # bytes seen on host 5's link before it goes down
slowdown=10          # how much slower the healthy hosts may be next to the bad ones

check() {  # check NAME EXPECTED ACTUAL
  if [[ "$2" == "$3" ]]; then echo "ok   $1"; else echo "FAIL $1: expected [$2], got [$3]"; failures=$((failures + 1)); fi
}
check_true() {  # check_true NAME COMMAND...
  local name=$1; shift
  if "$@"; then echo "ok   $name"; else echo "FAIL $name"; failures=$((failures + 1)); fi
}

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -KILL "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
  for n in 1 2 3 4 5 6; do ip netns del "$tag-$n" 2>/dev/null; done
}
trap cleanup EXIT

skip() { echo "SKIP: $1"; exit 77; }
ip netns add "$tag-1" 2>/dev/null ||
  skip "network namespaces cannot be made here (needs root, CAP_SYS_ADMIN and iproute2)"
command -v nft >/dev/null || skip "nft is not installed (Debian package nftables)"
command -v python3 >/dev/null || skip "python3 is not installed"
rm -rf "$work" && mkdir -p "$work" || exit 2

source "$(dirname "$0")/netns_hosts.sh"
make_hosts "$tag" 10.232 6

# Host 4 loses packets; host 5's link is slow both ways, so the cut comes mid-transfer.
ip netns exec "$tag-4" nft -f - <<'EOF' || skip "nftables does not work in a network namespace here"
table inet loss {
  chain in { type filter hook input priority 0; ct state established numgen random mod 100 < 5 drop; }
  chain out { type filter hook output priority 0; ct state established numgen random mod 100 < 5 drop; }
}
EOF
tc qdisc add dev "$tag-h5" root tbf rate 4mbit burst 32kb latency 200ms 2>/dev/null &&
  ip netns exec "$tag-5" tc qdisc add dev "$tag-n5" root tbf rate 4mbit burst 32kb latency 200ms ||
  skip "the tbf queueing discipline is not available"

printf 'fleet password\n' > "$work/password"
hash=$(printf 'fleet password\n' | "$service" --hash-password)
head -c "$big" /dev/urandom > "$work/big.bin"
head -c "$cut_file" /dev/urandom > "$work/cut.bin"

# pelmorad in namespace N listening on LISTEN, with drive C holding data.bin (the cut host's file
# is the large one); waits for its port on a FIFO.
start_service() {  # start_service N LISTEN
  local n=$1 dir=$work/host$1
  mkdir -p "$dir/c"
  if [[ $n == 5 ]]; then cp "$work/cut.bin" "$dir/c/data.bin"; else cp "$work/big.bin" "$dir/c/data.bin"; fi
  # The account has no run_as: its file work runs as nobody, so the drive belongs to nobody.
  chown -R nobody "$dir/c"
  printf '[drives]\nC = "%s/c"\n[accounts.fleet]\npassword = "%s"\n' "$dir" "$hash" > "$dir/pelmorad.toml"
  start_service_in "$tag" "$n" "$dir" "$2" "$service"
}
for n in 1 2 4 5; do start_service "$n" "10.232.$n.2:8002"; done
start_service 3 "127.0.0.1:8002"
# The relay and the silent listener say "ready" on standard output once they listen.
start_helper() {  # start_helper N COMMAND...
  local n=$1; shift
  exec {fd}< <(exec ip netns exec "$tag-$n" "$@")
  pids+=($!)
  local word
  read -r -t 20 word <&"$fd"; exec {fd}<&-
  [[ "$word" == ready ]] || { echo "FAIL the helper of host $n did not start"; exit 1; }
}
start_helper 3 python3 "$here/delay_relay.py" 10.232.3.2 8002 127.0.0.1 8002 200
start_helper 6 python3 -c '
import socket, sys, time
s = socket.socket(); s.bind(("10.232.6.2", 8002)); s.listen(16)
print("ready", flush=True); sys.stdout.close()
held = []
while True: held.append(s.accept()[0])'

# Brings host 5's link down once more than cut_after bytes have crossed it in the direction
# given (rx: towards here, tx: towards host 5), bounded at 30 s; logs what it did.
cut_link_later() {  # cut_link_later rx|tx
  local counter=/sys/class/net/$tag-h5/statistics/$1_bytes start
  start=$(cat "$counter")
  for ((i = 0; i < 600; i++)); do
    if (($(cat "$counter") - start > cut_after)); then
      ip link set "$tag-h5" down && echo "cut after $(($(cat "$counter") - start)) bytes"
      return
    fi
    sleep 0.05
  done
  echo "the transfer never got going"
}
restore_link() {
  ip link set "$tag-h5" up
  ip addr replace "10.232.5.1/24" dev "$tag-h5"
}

healthy='10.232.1.2,10.232.2.2'
everyone="10.232.3.2,10.232.4.2,10.232.5.2,10.232.6.2,$healthy"
now() { date +%s.%N; }
elapsed() { awk -v a="$(now)" -v b="$1" 'BEGIN { printf "%.3f\n", a - b }'; }
# Runs the tool over HOSTS with --json, each line stamped with the seconds since the start.
fleet() {  # fleet HOSTS OUT COMMAND...
  local hosts=$1 out=$2; shift 2
  local start; start=$(now)
  "$tool" admin --hosts "$hosts" --parallel 6 --account fleet --password-file "$work/password" \
    --timeout "$timeout_ms" --connect-timeout "$timeout_ms" --json --quiet "$@" 2> "$out.err" |
    while IFS= read -r line; do echo "$(elapsed "$start") $line"; done > "$out"
  echo "$(elapsed "$start")" > "$out.total"
}
line_of() { grep "\"host\":\"$2\"" "$1"; }            # line_of OUT HOST
arrival() { line_of "$1" "$2" | cut -d' ' -f1; }      # seconds until HOST's result came
field() { line_of "$1" "$2" | grep -o "\"$3\":[^,}]*" | head -1 | cut -d: -f2-; }
error_of() { line_of "$1" "$2" | grep -o '"error":{"number":[0-9]*,"description":"[^"]*"'; }
timed_out='"error":{"number":10060,"description":"A connection attempt failed because the connected party did not properly respond after a period of time, or established connection failed because connected host has failed to respond."'
no_leftovers() {  # no_leftovers FOLDER: nothing but data.bin (and the audit files) inside
  [[ -z "$(find "$1" -mindepth 1 \( -name '.*' -o -name '*.part' -o -name '*.tmp' \))" ]]
}
le() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a <= b) }'; }
calc() { awk "BEGIN { print $1 }"; }

check_run() {  # check_run WHAT OUT ALONE_OUT FAILING_HOST...
  local what=$1 out=$2 alone=$3 host limit; shift 3
  check "$what: one result per host" $((4 + $#)) "$(grep -c '{"host"' "$out")"
  for host in 10.232.1.2 10.232.2.2 10.232.3.2 10.232.4.2; do
    check "$what: $host ok" '"ok"' "$(field "$out" "$host" result)"
  done
  for host in "$@"; do
    check "$what: $host failed" '"failed"' "$(field "$out" "$host" result)"
    check "$what: $host timed out" "$timed_out" "$(error_of "$out" "$host")"
  done
  # Reported within the reply time-out of the moment the host went quiet: the silent host
  # from the start, the cut host a little later (its link is slow).
  limit=$(calc "2 * $timeout_ms / 1000 + 4")
  check_true "$what: every result within ${limit}s (took $(cat "$out.total")s)" le "$(cat "$out.total")" "$limit"
  limit=$(calc "$slowdown * $(cat "$alone.total") + 0.5")
  for host in 10.232.1.2 10.232.2.2; do
    check_true "$what: $host after $(arrival "$out" "$host")s, alone $(cat "$alone.total")s" \
      le "$(arrival "$out" "$host")" "$limit"
  done
}

case "$mode" in
  all)
    # get: the healthy hosts alone, then everyone (host 5's link goes down mid-download).
    fleet "$healthy" "$work/get-alone.json" get 'C:\data.bin' "$work/got-alone"
    cut_link_later rx > "$work/get.cut" &
    cutter=$!
    fleet "$everyone" "$work/get.json" get 'C:\data.bin' "$work/got"
    wait "$cutter"
    echo "host 5: $(cat "$work/get.cut")"
    check_run get "$work/get.json" "$work/get-alone.json" 10.232.5.2 10.232.6.2
    for n in 1 2 3 4; do
      check_true "get: host $n's file whole" cmp -s "$work/big.bin" "$work/got/10.232.$n.2/data.bin"
    done
    check "get: nothing from host 6" "" "$(ls -A "$work/got/10.232.6.2" 2>/dev/null)"
    check_true "get: no partial file in the local folders" no_leftovers "$work/got"

    # put: the same file to every host but the cut one (see upload-cut).
    fleet "$healthy" "$work/put-alone.json" put "$work/big.bin" 'C:\put.bin'
    fleet "${everyone/10.232.5.2,/}" "$work/put.json" put "$work/big.bin" 'C:\put.bin'
    check_run put "$work/put.json" "$work/put-alone.json" 10.232.6.2
    for n in 1 2 3 4; do
      check_true "put: host $n's file whole" cmp -s "$work/big.bin" "$work/host$n/c/put.bin"
    done
    for n in 1 2 3 4; do
      check_true "put: no partial file in host $n's drive" no_leftovers "$work/host$n/c"
    done
    ;;
  upload-cut)
    # put with host 5's link going down mid-upload: the host must be reported as timed out
    # (10060) within the reply time-out of the cut, long before the overall time-out, and
    # nothing may appear in its drive.
    cut_link_later tx > "$work/put.cut" &
    cutter=$!
    fleet "10.232.5.2,$healthy" "$work/put.json" --overall-timeout $((4 * timeout_ms)) \
      put "$work/big.bin" 'C:\put.bin'
    wait "$cutter"
    echo "host 5: $(cat "$work/put.cut")"
    check "put: host 5 failed" '"failed"' "$(field "$work/put.json" 10.232.5.2 result)"
    check "put: host 5 timed out" "$timed_out" "$(error_of "$work/put.json" 10.232.5.2)"
    reported=$(line_of "$work/put.json" 10.232.5.2 | cut -d' ' -f1)
    check_true "put: host 5 reported before the overall time-out (${reported:-never} s)" \
      le "${reported:-999}" "$(calc "3 * $timeout_ms / 1000")"
    check_true "put: no file under the target name on host 5" test ! -e "$work/host5/c/put.bin"
    check_true "put: no partial file in host 5's drive" no_leftovers "$work/host5/c"
    ;;
  download-cut)
    # get with host 5's link going down mid-download: nothing of host 5's file may be left in
    # the local folder.
    cut_link_later rx > "$work/get.cut" &
    cutter=$!
    fleet "10.232.5.2,$healthy" "$work/get.json" get 'C:\data.bin' "$work/got"
    wait "$cutter"
    echo "host 5: $(cat "$work/get.cut")"
    check "get: host 5 timed out" "$timed_out" "$(error_of "$work/get.json" 10.232.5.2)"
    check "get: nothing from host 5" "" "$(ls -A "$work/got/10.232.5.2" 2>/dev/null)"
    ;;
esac

if ((failures > 0)); then
  for f in "$work"/*.json "$work"/*.err; do echo "--- $f"; cat "$f"; done
  echo "$failures check(s) failed"
  exit 1
fi
echo "all checks passed"
