#!/usr/bin/env bash
# Benchmarks of the pelmora tool against a real pelmorad, each next to its peer in the same run:
#   1. a fleet `exec true` across 1000 sessions (1000 loopback addresses, one service), and
#      across 10 000 (10 000 distinct addresses) with the client's peak resident memory;
#   2. `pelmora admin get` of a large file next to a plain TCP pump of the same bytes;
#   3. `pelmora admin exec true` next to `ssh localhost true` when an SSH server answers.
# Runs inside a private network namespace (only its loopback), so the service may listen on every
# address of it. Usage: bench/fleet_bench.sh BUILD_DIR [GET_MIB]   (as root; GET_MIB default 1024)
set -euo pipefail
build=$(realpath "${1:?usage: bench/fleet_bench.sh BUILD_DIR [GET_MIB]}")
mib=${2:-1024}
if [[ -z ${PELMORA_BENCH_IN_NETNS:-} ]]; then
  exec unshare -n env PELMORA_BENCH_IN_NETNS=1 "$0" "$build" "$mib"
fi
ip link set lo up
tool=$build/tools/pelmora/pelmora
service=$build/pelmorad/pelmorad
source "$(dirname "$0")/bench_service.sh"
work=$(mktemp -d /tmp/pelmora-fleet-bench-XXXXXX)
service_pid=
finish() {
  [[ -n $service_pid ]] && kill "$service_pid" 2>/dev/null && wait "$service_pid" 2>/dev/null
  rm -rf "$work"
}
trap finish EXIT

mkdir -p "$work/c"
printf 'bench password\n' > "$work/password"
hash=$("$service" --hash-password < "$work/password")
bench_service_config "$work" "$hash" > "$work/pelmorad.toml"
chmod 600 "$work/pelmorad.toml"
mkfifo "$work/port"
exec 3<>"$work/port"
"$service" --config "$work/pelmorad.toml" --listen 0.0.0.0:0 --port-file "$work/port" \
  2> /dev/null &
service_pid=$!
read -r -t 20 port <&3
exec 3<&-
pel() { "$tool" admin --account bench --password-file "$work/password" --quiet "$@"; }
seconds() { local s=$EPOCHREALTIME; "$@" > /dev/null; echo "$EPOCHREALTIME - $s" | bc; }

for a in 0 1 2 3; do for b in $(seq 1 250); do echo "127.0.$a.$b:$port"; done; done > "$work/hosts"
fleet=$(seconds pel --hosts-file "$work/hosts" --parallel 64 exec true)
echo "fleet exec true, 1000 sessions, --parallel 64: ${fleet} s ($(echo "scale=1; 1000 / $fleet" | bc) sessions/s)"
# Distinct addresses: a fleet runs each host:port once, so repeating the list would not count.
for a in $(seq 0 39); do for b in $(seq 1 250); do echo "127.0.$a.$b:$port"; done; done > "$work/hosts10k"
start=$EPOCHREALTIME
peak=$( { /usr/bin/time -f '%M' "$tool" admin --account bench --password-file "$work/password" \
  --quiet --hosts-file "$work/hosts10k" --parallel 64 exec true > /dev/null; } 2>&1 | tail -1)
fleet10k=$(echo "$EPOCHREALTIME - $start" | bc)
echo "fleet exec true, 10000 sessions, --parallel 64: ${fleet10k} s, client peak resident ${peak} KiB"

head -c "$((mib * 1048576))" /dev/urandom > "$work/c/big.bin"
get=$(seconds pel --host 127.0.0.1 --port "$port" get 'C:\big.bin' "$work/got.bin")
cmp -s "$work/c/big.bin" "$work/got.bin" || { echo "get: the copy differs" >&2; exit 1; }
rm -f "$work/got.bin"
pump=$(seconds python3 - "$work/c/big.bin" "$work/pumped.bin" <<'PY'
import socket, sys, threading
server = socket.create_server(("127.0.0.1", 0))
def send():
    conn, _ = server.accept()
    with conn, open(sys.argv[1], "rb") as f:
        conn.sendfile(f)
threading.Thread(target=send).start()
with socket.create_connection(server.getsockname()) as c, open(sys.argv[2], "wb") as out:
    while chunk := c.recv(1 << 20):
        out.write(chunk)
PY
)
echo "get ${mib} MiB: pelmora ${get} s, plain TCP pump ${pump} s: $(echo "scale=2; $pump / $get" | bc) of the pump's rate"

one=$(seconds pel --host 127.0.0.1 --port "$port" exec true)
if timeout 5 ssh -o BatchMode=yes -o StrictHostKeyChecking=no localhost true 2>/dev/null; then
  ssh_time=$(seconds ssh -o BatchMode=yes localhost true)
  echo "exec true: pelmora ${one} s, ssh ${ssh_time} s"
else
  echo "exec true: pelmora ${one} s (no SSH server answers here: no ssh figure)"
fi
