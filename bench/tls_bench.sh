#!/usr/bin/env bash
# The TLS transport of `pelmora admin` against a real pelmorad, each figure next to its peer in
# the same run:
#   1. get and put of a file (default 1 GiB) over TLS, over the plain transport, and with scp to
#      an sshd the script starts on a loopback port (its own host key, key login);
#   2. `exec true` over TLS next to `ssh -p PORT 127.0.0.1 true` with key login (50 runs each);
#   3. a fleet `exec true` over TLS across 1000 sessions (1000 loopback addresses).
# Targets: TLS at least 0.6 of the plain rate and 3x scp's; exec at least 15x faster than ssh;
# the fleet under 3 s. The service listens for TLS itself (listen_tls, its own certificate under
# state_directory).
# Runs inside a private network namespace (only its loopback).
# Usage: bench/tls_bench.sh BUILD_DIR [MIB]   (as root; needs openssh-server, bc, python3 for free ports)
set -euo pipefail
build=$(realpath "${1:?usage: bench/tls_bench.sh BUILD_DIR [MIB]}")
mib=${2:-1024}
if [[ -z ${PELMORA_BENCH_IN_NETNS:-} ]]; then
  exec unshare -n env PELMORA_BENCH_IN_NETNS=1 "$0" "$build" "$mib"
fi
ip link set lo up
source "$(dirname "$0")/bench_service.sh"
tool=$build/tools/pelmora/pelmora
service=$build/pelmorad/pelmorad
work=$(mktemp -d /tmp/pelmora-tls-bench-XXXXXX)
pids=()
finish() {
  set +e  # a killed process's status must not stop the cleaning
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
  rm -rf "$work"
}
trap finish EXIT

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
# Waits (at most 20 s) until something accepts connections on 127.0.0.1:$1.
wait_port() {
  for _ in $(seq 200); do (exec 9<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0; sleep 0.1; done
  echo "nothing answers on port $1" >&2; exit 1
}
seconds() { local s=$EPOCHREALTIME; "$@" > /dev/null; echo "$EPOCHREALTIME - $s" | bc; }
ratio() { echo "scale=2; $1 / $2" | bc; }

# The service: plain on one port, TLS on another.
mkdir -p "$work/c" "$work/state"
printf 'bench password\n' > "$work/password"
hash=$("$service" --hash-password < "$work/password")
plain_port=$(free_port)
tls_port=$(free_port)
{
  echo "listen = [\"0.0.0.0:$plain_port\"]"
  echo "listen_tls = [\"0.0.0.0:$tls_port\"]"
  echo "state_directory = \"$work/state\""
  bench_service_config "$work" "$hash"
} > "$work/pelmorad.toml"
chmod 600 "$work/pelmorad.toml"
"$service" --config "$work/pelmorad.toml" 2> "$work/pelmorad.log" &
pids+=($!)
wait_port "$plain_port"
wait_port "$tls_port"
fingerprint=$("$service" --show-fingerprint -c "$work/pelmorad.toml" | grep -o 'SHA256:[A-Za-z0-9+/]*' | head -1)
echo "TLS through pelmorad's own TLS listener; certificate $fingerprint"
# Figures from a shared machine mean little without its load: printed before and after.
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
pel() { "$tool" admin --account bench --password-file "$work/password" --quiet "$@"; }
tls() { pel --tls --fingerprint "$fingerprint" "$@"; }

# sshd on its own port, host key and authorized key, in the scratch folder.
ssh_port=$(free_port)
ssh-keygen -q -t ed25519 -N '' -f "$work/host_key"
ssh-keygen -q -t ed25519 -N '' -f "$work/user_key"
cp "$work/user_key.pub" "$work/authorized_keys"
chmod 600 "$work/authorized_keys"
cat > "$work/sshd_config" <<CONF
Port $ssh_port
ListenAddress 127.0.0.1
HostKey $work/host_key
AuthorizedKeysFile $work/authorized_keys
PermitRootLogin prohibit-password
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
StrictModes no
PidFile $work/sshd.pid
Subsystem sftp internal-sftp
CONF
mkdir -p /run/sshd
/usr/sbin/sshd -D -e -f "$work/sshd_config" 2> "$work/sshd.log" &
pids+=($!)
wait_port "$ssh_port"
ssh_options=(-i "$work/user_key" -o BatchMode=yes -o StrictHostKeyChecking=no
             -o UserKnownHostsFile="$work/ssh_known_hosts" -o LogLevel=ERROR)

# 1. Transfers.
head -c "$((mib * 1048576))" /dev/urandom > "$work/big.bin"
cp "$work/big.bin" "$work/c/big.bin"
check() { cmp -s "$work/big.bin" "$1" || { echo "$2: the copy differs" >&2; exit 1; }; rm -f "$1"; }
get_tls=$(seconds tls --host 127.0.0.1 --port "$tls_port" get 'C:\big.bin' "$work/got.bin")
check "$work/got.bin" "get over TLS"
get_plain=$(seconds pel --host 127.0.0.1 --port "$plain_port" get 'C:\big.bin' "$work/got.bin")
check "$work/got.bin" "get"
get_scp=$(seconds scp -q -P "$ssh_port" "${ssh_options[@]}" "root@127.0.0.1:$work/c/big.bin" "$work/got.bin")
check "$work/got.bin" "scp download"
put_tls=$(seconds tls --host 127.0.0.1 --port "$tls_port" put "$work/big.bin" 'C:\up-tls.bin')
check "$work/c/up-tls.bin" "put over TLS"
put_plain=$(seconds pel --host 127.0.0.1 --port "$plain_port" put "$work/big.bin" 'C:\up.bin')
check "$work/c/up.bin" "put"
put_scp=$(seconds scp -q -P "$ssh_port" "${ssh_options[@]}" "$work/big.bin" "root@127.0.0.1:$work/c/up-scp.bin")
check "$work/c/up-scp.bin" "scp upload"
for way in get put; do
  t=${way}_tls p=${way}_plain s=${way}_scp
  echo "$way $mib MiB: TLS ${!t} s, plain ${!p} s, scp ${!s} s;" \
       "TLS $(ratio "${!p}" "${!t}") of plain's rate (target 0.6), $(ratio "${!s}" "${!t}")x scp's (target 3)"
done

# 2. One short command, 50 times each.
runs=50
exec_tls=$(seconds bash -c "for i in \$(seq $runs); do \"\$@\" exec true; done" _ \
  "$tool" admin --account bench --password-file "$work/password" --quiet --tls \
  --fingerprint "$fingerprint" --host 127.0.0.1 --port "$tls_port")
exec_ssh=$(seconds bash -c "for i in \$(seq $runs); do ssh -p $ssh_port \"\$@\" root@127.0.0.1 true; done" _ \
  "${ssh_options[@]}")
echo "exec true x$runs: TLS ${exec_tls} s, ssh ${exec_ssh} s: $(ratio "$exec_ssh" "$exec_tls")x faster (target 15)"

# 3. A fleet over TLS.
for a in 0 1 2 3; do for b in $(seq 1 250); do echo "127.0.$a.$b:$tls_port"; done; done > "$work/hosts"
fleet=$(seconds tls --hosts-file "$work/hosts" --parallel 64 exec true)
echo "fleet exec true over TLS, 1000 sessions, --parallel 64: ${fleet} s (target under 3 s)"
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
