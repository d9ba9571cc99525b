#!/usr/bin/env bash
# Follows the README's real-use steps with a scratch prefix standing in for /usr and a service on
# loopback: `cmake --install` (what the package holds; tests/packaging installs the package
# itself into a fresh root) puts the programs where the unit looks for them and the document its
# Documentation= names, the installed programs find libpelmora.so by themselves, the server's
# configuration (with its run_as user, the one the package creates) passes the unit's check and
# serves, and every client example of the README succeeds against it.
#   readme_test.sh BUILD_DIR SOURCE_DIR SCRATCH_DIR
set -uo pipefail
build=$(cd "$1" && pwd)
source_dir=$(cd "$2" && pwd)
scratch=$3
readme=$source_dir/README.md
unit=$source_dir/packaging/pelmorad.service
rm -rf "$scratch" && mkdir -p "$scratch" && cd "$scratch" || exit 2
failures=0
check() {  # check NAME COMMAND...
  local name=$1
  shift
  if "$@" >out 2>err; then echo "ok   $name"; else
    echo "FAIL $name (exit $?): $*"; cat out err; failures=$((failures + 1)); fi
}
service_pid=
finish() {
  [[ -n $service_pid ]] && { kill -TERM "$service_pid" 2>/dev/null; wait "$service_pid"; }
}
trap finish EXIT

# The README's code blocks after a heading's words: block N (1-based) after the line matching $1.
block() {
  awk -v start="$1" -v want="$2" '
    index($0, start) { on = 1 }
    on && /^```/ { if (inside) { if (++n == want) exit; inside = 0 } else inside = 1; next }
    on && inside && n + 1 == want { print }' "$readme"
}
server=$(block "Real use, on the server" 1)
client=$(block "Real use, on the server" 2)

# The install step: the package, or from source `cmake --install` with --prefix /usr; the
# scratch prefix stands in for /usr.
grep -Eq '^sudo apt install \./build/release/pelmora_\*\.deb' <<<"$server" ||
  { echo "FAIL the server's steps do not start by installing the package"; failures=$((failures + 1)); }
grep -q 'scripts/package' <<<"$server" ||
  { echo "FAIL the server's steps do not build the package"; failures=$((failures + 1)); }
grep -q 'cmake --install build/tool --prefix /usr`' "$readme" ||
  { echo "FAIL the README no longer shows cmake --install --prefix /usr"; failures=$((failures + 1)); }
root=$scratch/root
check "cmake --install" cmake --install "$build" --prefix "$root/usr"

exec_start=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
documentation=$(sed -n 's|^Documentation=file://\(.*\)|\1|p' "$unit")
check "the unit's ExecStart $exec_start is installed" test -x "$root$exec_start"
check "the unit's Documentation= $documentation is installed" test -s "$root$documentation"
check "the unit itself is installed" test -s "$root/usr/lib/systemd/system/pelmorad.service"
pelmora=$root/usr/bin/pelmora
pelmorad=$root/usr/sbin/pelmorad
check "pelmora runs without LD_LIBRARY_PATH" env -u LD_LIBRARY_PATH "$pelmora" admin --help
found=$(env -u LD_LIBRARY_PATH ldd "$pelmorad" | awk '/libpelmora/ { print $3 }')
check "pelmorad finds the installed libpelmora.so ($found)" \
  test "$(readlink -f "$found")" -ef "$root/usr/lib/libpelmora.so"

# The configuration as the README writes it.
config_text=$(sed -n "/<<'EOF'/,/^EOF/p" <<<"$server" | sed '1d;$d')
run_as=$(sed -n 's/^run_as = "\(.*\)"/\1/p' <<<"$config_text")
check "the package creates the run_as user \"$run_as\"" \
  grep -q "getent passwd $run_as " "$source_dir/packaging/debian/postinst"
check "the README's source install creates the run_as user \"$run_as\"" \
  grep -Eq "useradd --system .*[ ]$run_as( |\$|\`)" "$readme"
# This machine may lack that user: root runs the commands as nobody instead; other users run
# them as themselves whatever run_as says.
if ! id "$run_as" >/dev/null 2>&1; then
  echo "note no user \"$run_as\" here: the commands run as nobody"
  run_as=nobody
fi
printf 'readme password\n' >password
hash=$("$pelmorad" --hash-password <password)
mkdir -p c/reports
chown -R "$run_as" c   # the README's install -o: the drive belongs to the run_as user
sed -e '/^listen = /d' -e "s|/srv/pelmora/c|$scratch/c|" \
    -e "s|^password = .*|password = \"$hash\"|" -e "s|^run_as = .*|run_as = \"$run_as\"|" \
    <<<"$config_text" >pelmorad.toml
chmod 600 pelmorad.toml
check "the unit's configuration check" "$pelmorad" --check-config --config pelmorad.toml

mkfifo port
exec 3<>port
"$pelmorad" --config pelmorad.toml --listen 127.0.0.1:0 --port-file port 2>audit.log &
service_pid=$!
if ! read -r -t 20 port <&3; then
  echo "FAIL pelmorad did not start"; cat audit.log; exit 1
fi

# Every client example, aimed at this service: a fleet is two sessions with it.
printf 'tour report\n' >report.pdf
printf '127.0.0.1:%s\nlocalhost:%s\n' "$port" "$port" >fleet.txt
export PELMORA_PASSWORD="readme password" PELMORA_LOG_ROOT=$scratch/log PELMORA_HOME=$scratch/home
examples=0
while IFS= read -r line; do
  [[ $line == pelmora\ * ]] || continue
  examples=$((examples + 1))
  line=${line//--host server/--host 127.0.0.1 --port $port}
  line=$(sed -E "s/--hosts '[^']*'/--hosts '127.0.0.1:$port,localhost:$port'/" <<<"$line")
  # As with ssh, exec forwards standard input: keep the loop's own input away from it.
  check "example: ${line%%#*}" bash -c "PATH='$root/usr/bin':\$PATH; $line" </dev/null
done <<<"$client"
[[ $examples -ge 5 ]] || { echo "FAIL only $examples client examples found"; failures=$((failures + 1)); }
check "the uploaded report arrived" cmp report.pdf c/reports/report.pdf

# The encrypted path: the service's own certificate, its fingerprint, the first connection, the
# client certificate that replaces the password, and a fleet over TLS. With no terminal here, the
# first connection's question is answered by --trust-new; the fleet's second name is a new host.
tls_steps=$(block "Encrypted sessions are the recommended way" 1)
grep -q 'listen_tls = \["0.0.0.0:8443"\]' <<<"$tls_steps" ||
  { echo "FAIL the TLS steps do not show listen_tls"; failures=$((failures + 1)); }
grep -q '^sudo pelmorad --show-fingerprint' <<<"$tls_steps" ||
  { echo "FAIL the TLS steps do not show --show-fingerprint"; failures=$((failures + 1)); }
kill -TERM "$service_pid"; wait "$service_pid"; service_pid=
{ echo "state_directory = \"$scratch/state\""; cat pelmorad.toml; } >tls.toml
chmod 600 tls.toml
check "the first --show-fingerprint makes the key" "$pelmorad" --show-fingerprint --config tls.toml
fingerprint=$(cat out)
[[ $fingerprint =~ ^SHA256:[A-Za-z0-9+/]{43}$ ]] ||
  { echo "FAIL the fingerprint has not ssh's form: $fingerprint"; failures=$((failures + 1)); }
check "the service's key is private" test "$(stat -c %a "$scratch/state/tls.key")" = 600
mkfifo tlsport
exec 4<>tlsport
"$pelmorad" --config tls.toml --listen-tls 127.0.0.1:0 --tls-port-file tlsport 2>>audit.log &
service_pid=$!
if ! read -r -t 20 tls_port <&4; then
  echo "FAIL pelmorad did not start with TLS"; cat audit.log; exit 1
fi
export XDG_CONFIG_HOME=$scratch/config
while IFS= read -r line; do
  [[ $line == pelmora\ * ]] || continue
  examples=$((examples + 1))
  line=${line%%#*}
  line=${line//--host server/--host 127.0.0.1 --port $tls_port --trust-new}
  line=$(sed -E "s/--hosts '[^']*'/--hosts '127.0.0.1:$tls_port,localhost:$tls_port' --trust-new/" <<<"$line")
  check "TLS example: $line" bash -c "PATH='$root/usr/bin':\$PATH; $line" </dev/null
  if [[ $line == *keygen* ]]; then
    # What the service's administrator does with the printed line: paste it, reload.
    paste_line=$(grep '^client_certificates = ' out)
    sed -i "/^\[accounts\./a $paste_line" tls.toml
    kill -HUP "$service_pid"
    unset PELMORA_PASSWORD
  fi
done <<<"$tls_steps"
check "the recorded host is the one that was shown" grep -q "127.0.0.1:$tls_port $fingerprint" \
  "$XDG_CONFIG_HOME/pelmora/known_hosts"
check "the certificate login is audited" grep -q "login by client certificate" audit.log

echo "$failures failure(s)"
[[ $failures -eq 0 ]]
