#!/usr/bin/env bash
# Builds the .deb with cpack, follows the README's server steps in a fresh Debian 12 root (from
# `apt install ./build/release/pelmora_*.deb` to a served command), checks what the package set
# up, and runs the tour there against the installed programs. Needs root and debootstrap (exit 77 without them); the Debian 12 base root is made
# once, with the package archive's lists, and kept under CACHE_DIR, as are the downloaded
# dependencies, so later runs need no network.
#   deb_install_test.sh BUILD_DIR SOURCE_DIR CACHE_DIR SCRATCH_DIR
set -uo pipefail
build=$(cd "$1" && pwd)
source_dir=$(cd "$2" && pwd)
cache=$3
scratch=$4
mirror=${PELMORA_DEBIAN_MIRROR:-http://deb.debian.org/debian}
[[ $(id -u) -eq 0 ]] || { echo "skipped: installing a package into a root needs root"; exit 77; }
for program in debootstrap chroot cpack mount; do
  command -v "$program" >/dev/null || { echo "skipped: no $program here (scripts/bootstrap --tests)"; exit 77; }
done

mkdir -p "$cache/archives/partial" || exit 2
base=$cache/bookworm-minbase.tar
if [[ ! -s $base ]]; then
  echo "making the Debian 12 base root (once, kept as $base)"
  rm -rf "$cache/base"
  if ! timeout 900 debootstrap --variant=minbase bookworm "$cache/base" "$mirror" >"$cache/debootstrap.log" 2>&1; then
    tail -n 5 "$cache/debootstrap.log"
    rm -rf "$cache/base"
    echo "skipped: debootstrap could not make a Debian 12 root from $mirror"
    exit 77
  fi
  chroot "$cache/base" apt-get update -q >/dev/null || { echo "skipped: apt-get update failed"; exit 77; }
  tar -C "$cache/base" -cf "$base.part" . && mv "$base.part" "$base" && rm -rf "$cache/base"
fi

rm -rf "$scratch" && mkdir -p "$scratch/cpack" || exit 2
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$scratch/cpack" >"$scratch/cpack.log" 2>&1 ||
  { echo "FAIL cpack -G DEB"; cat "$scratch/cpack.log"; exit 1; }
deb=$(ls "$scratch"/cpack/pelmora_*_amd64.deb 2>/dev/null)
version=$(sed -n 's/^project(Pelmora VERSION \([0-9.]*\).*/\1/p' "$source_dir/CMakeLists.txt")
[[ $(basename "$deb") == "pelmora_${version}_amd64.deb" ]] || { echo "FAIL no pelmora_${version}_amd64.deb: $deb"; exit 1; }

root=$scratch/root
mkdir -p "$root" && tar -C "$root" -xf "$base" || { echo "FAIL unpacking the base root"; exit 1; }
# debootstrap leaves out what the installer writes: the loopback names the fleet step uses.
[[ -s $root/etc/hosts ]] || printf '127.0.0.1\tlocalhost\n::1\t\tlocalhost ip6-localhost ip6-loopback\n' >"$root/etc/hosts"
mounts=()
finish() {
  local i
  for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do umount -l "${mounts[i]}"; done
}
trap finish EXIT
mount -t proc proc "$root/proc" && mounts+=("$root/proc")
mount --bind "$cache/archives" "$root/var/cache/apt/archives" && mounts+=("$root/var/cache/apt/archives")
in_root() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@"; }

failures=0
check() {  # check NAME COMMAND...
  local name=$1
  shift
  if "$@" >"$scratch/out" 2>&1; then echo "ok   $name"; else
    echo "FAIL $name (exit $?): $*"; tail -n 20 "$scratch/out"; failures=$((failures + 1)); fi
}
# The README's server steps, as they stand there, from `apt install` on: the password is fed to
# --hash-password and its hash written where the README says to paste it, the listen line is left
# out (the root shares this machine's ports), and without systemd in the root the service starts
# by hand on a free loopback port, where the README's first client example (a command, run as the
# run_as user the package made) must succeed.
readme=$source_dir/README.md
steps=$(awk '/^Real use, on the server/ { on = 1 } on && /^```/ { if (inside) exit; inside = 1; next }
             on && inside { print }' "$readme")
grep -q '^sudo apt install ' <<<"$steps" || { echo "FAIL the README's server steps do not install the package"; exit 1; }
client=$(awk '/^Real use, on the server/ { on = 1 } on && /^```/ { n++; next } on && n == 3 { print; exit }' "$readme")
mkdir -p "$root/tmp/build/release" && cp "$deb" "$root/tmp/build/release/" || exit 1
{
  echo 'set -e; cd /tmp; export DEBIAN_FRONTEND=noninteractive'
  sed -e '/^scripts\/package/d' -e 's/^sudo //' -e 's/^apt install /timeout 600 apt-get install -y -q /' \
      -e "s/^pelmorad --hash-password.*/hash=\$(echo 'readme password' | pelmorad --hash-password)/" \
      -e "s/<<'EOF'/<<EOF/" -e 's/"\$y\$\.\.\."/"$hash"/' -e '/^listen = /d' \
      -e 's/^systemctl start pelmorad.*/mkfifo port; exec 3<>port/' <<<"$steps"
  echo 'pelmorad --config /etc/pelmora/pelmorad.toml --listen 127.0.0.1:0 --port-file port 2>audit.log &'
  echo 'service=$!; trap "kill $service; wait $service || true" EXIT'
  echo 'read -r -t 20 port <&3'
  echo "export PELMORA_PASSWORD='readme password'"
  sed -e 's/--host server/--host 127.0.0.1 --port $port/' <<<"$client"
} >"$root/tmp/readme-steps.sh"
check "the README's server steps and first client example" in_root timeout 900 bash /tmp/readme-steps.sh
[[ $failures -eq 0 ]] || { cat "$root/tmp/readme-steps.sh" "$root/tmp/audit.log"; exit 1; }
check "the service audited the example's command" grep -qF 'path="uname -a (exit 0)"' "$root/tmp/audit.log"

check "the package's dependencies are all met" in_root apt-get check
check "the run_as user pelmora exists, a system user without a shell" \
  in_root sh -c 'getent passwd pelmora | grep -Eq "^pelmora:x:[0-9]{1,3}:.*:/usr/sbin/nologin$"'
check "the configuration is root's, mode 640" \
  test "$(stat -c '%a %U' "$root/etc/pelmora/pelmorad.toml")" = "640 root"
check "the configuration is a conffile" grep -qx /etc/pelmora/pelmorad.toml "$root/var/lib/dpkg/info/pelmora.conffiles"
check "the configuration as shipped passes the service's check" \
  in_root pelmorad --check-config --config /usr/share/doc/pelmora/examples/pelmorad.toml
check "the unit is enabled" test -L "$root/etc/systemd/system/multi-user.target.wants/pelmorad.service"
check "the linker's cache knows libpelmora" in_root sh -c 'ldconfig -p | grep -q "libpelmora.so.0 "'
for installed in /usr/share/man/man1/pelmora.1 /usr/share/man/man8/pelmorad.8 \
                 /usr/share/bash-completion/completions/pelmora /usr/share/doc/pelmora/protocol.md \
                 /usr/lib/systemd/system/pelmorad.service; do
  check "$installed is installed" test -s "$root$installed"
done
check "the programs name their version" in_root sh -c \
  "pelmora --version | grep -q '^pelmora $version ' && pelmorad --version | grep -q '^pelmorad $version '"

# The tour, against the installed programs: it takes a build folder, so give it one whose
# programs are the installed ones.
mkdir -p "$root/tmp/installed/tools/pelmora" "$root/tmp/installed/pelmorad"
ln -s /usr/bin/pelmora "$root/tmp/installed/tools/pelmora/pelmora"
ln -s /usr/sbin/pelmorad "$root/tmp/installed/pelmorad/pelmorad"
cp "$source_dir/scripts/tour" "$root/tmp/tour"
in_root timeout 120 /tmp/tour /tmp/installed >"$scratch/tour.log" 2>&1
status=$?
if [[ $status -ne 0 ]] || grep -Eq '\(exit status|is not built|did not start' "$scratch/tour.log"; then
  echo "FAIL the tour (exit $status)"; cat "$scratch/tour.log"; failures=$((failures + 1))
else
  echo "ok   the tour against the installed programs"
fi

# A reinstall (as an upgrade runs the same scripts) keeps the administrator's configuration and
# a unit the administrator disabled (systemctl disable removes the link; no systemd here).
check "a reinstall keeps a disabled unit disabled and the configuration" in_root sh -c \
  'rm /etc/systemd/system/multi-user.target.wants/pelmorad.service &&
   DEBIAN_FRONTEND=noninteractive apt-get install -y -q --reinstall /tmp/build/release/pelmora_*.deb &&
   ! test -e /etc/systemd/system/multi-user.target.wants/pelmorad.service &&
   grep -q "^\[accounts.operator\]" /etc/pelmora/pelmorad.toml'
check "apt remove leaves the user and no program" in_root sh -c \
  'DEBIAN_FRONTEND=noninteractive apt-get remove -y -q pelmora && ! test -e /usr/sbin/pelmorad && getent passwd pelmora'
echo "$failures failure(s)"
[[ $failures -eq 0 ]]
