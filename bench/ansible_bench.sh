#!/usr/bin/env bash
# Ansible over the pelmora connection next to Ansible over ssh with Ansible's defaults
# (ControlMaster=auto, ControlPersist=60s, no pipelining, 5 forks, interpreter discovery), in the
# same run against the same 20 inventory hosts: 127.0.0.1-20 in a private network namespace, one
# pelmorad for all of them and one sshd with key login, both started here. Times, for each
# connection, the median of REPEATS runs of:
#   1. ad-hoc `command` (`-a true`) over the 20 hosts,
#   2. ad-hoc `copy` of a file whose content changes every run (so it is really sent),
#   3. a playbook of 10 tasks (no fact gathering) over the 20 hosts,
# and prints each pair with the ratio ssh time / pelmora time. The ssh control masters of one run
# are still alive for the next, as they are for a user who runs Ansible again within a minute, as
# are pelmora's session keeper's sessions. A third group runs the same work with Ansible's local
# connection (no connection at all: the modules run on the controller): ssh time / local time is
# the most that any connection could gain over ssh on this machine.
# Usage: bench/ansible_bench.sh BUILD_DIR [REPEATS]   (as root; REPEATS default 3)
set -euo pipefail
build=$(realpath "${1:?usage: bench/ansible_bench.sh BUILD_DIR [REPEATS]}")
repeats=${2:-3}
if [[ -z ${PELMORA_BENCH_IN_NETNS:-} ]]; then
  exec unshare -n env PELMORA_BENCH_IN_NETNS=1 "$0" "$build" "$repeats"
fi
ip link set lo up
source=$(cd "$(dirname "$0")/.." && pwd)
service=$build/pelmorad/pelmorad
source "$(dirname "$0")/bench_service.sh"
work=$(mktemp -d /tmp/pelmora-ansible-bench-XXXXXX)
service_pid= sshd_pid=
finish() {
  local status=$?
  for socket in "$work"/cp/*; do
    [[ -S $socket ]] && ssh -o ControlPath="$socket" -O exit dummy 2>/dev/null
  done
  [[ -n $service_pid ]] && kill "$service_pid" 2>/dev/null && wait "$service_pid" 2>/dev/null
  [[ -n $sshd_pid ]] && kill "$sshd_pid" 2>/dev/null && wait "$sshd_pid" 2>/dev/null
  rm -rf "$work"
  exit "$status"
}
trap finish EXIT

# pelmorad: drive C is the whole file system, so Ansible's ~root/.ansible/tmp lies on it.
printf 'bench password\n' > "$work/password"
hash=$("$service" --hash-password < "$work/password")
mkdir -p "$work/c"
bench_service_config "$work" "$hash" | sed 's|^C = .*|C = "/"|' > "$work/pelmorad.toml"
chmod 600 "$work/pelmorad.toml"
mkfifo "$work/port"
exec 3<>"$work/port"
"$service" --config "$work/pelmorad.toml" --listen 0.0.0.0:0 --port-file "$work/port" \
  2> "$work/pelmorad.log" &
service_pid=$!
read -r -t 20 port <&3
exec 3<&-

# sshd on port 22 of the namespace, root by key only, its own host key.
ssh-keygen -q -t ed25519 -N '' -f "$work/host_key"
ssh-keygen -q -t ed25519 -N '' -f "$work/user_key"
cp "$work/user_key.pub" "$work/authorized_keys"
echo "127.0.0.* $(cut -d' ' -f1-2 "$work/host_key.pub")" > "$work/known_hosts"
cat > "$work/sshd_config" <<CONF
ListenAddress 0.0.0.0:22
HostKey $work/host_key
AuthorizedKeysFile $work/authorized_keys
PermitRootLogin prohibit-password
PasswordAuthentication no
KbdInteractiveAuthentication no
StrictModes no
Subsystem sftp internal-sftp
PidFile none
CONF
mkdir -p /run/sshd
/usr/sbin/sshd -D -e -f "$work/sshd_config" 2> "$work/sshd.log" &
sshd_pid=$!
for _ in $(seq 1 100); do
  ssh -o BatchMode=yes -o UserKnownHostsFile="$work/known_hosts" -i "$work/user_key" \
    root@127.0.0.1 true 2>/dev/null && break
  [[ -d /proc/$sshd_pid ]] || { cat "$work/sshd.log" >&2; exit 1; }
  sleep 0.1
done

{
  echo "[ssh]"
  for n in $(seq 1 20); do echo "ssh$n ansible_host=127.0.0.$n"; done
  echo "[ssh:vars]"
  echo "ansible_user=root"
  echo "ansible_ssh_private_key_file=$work/user_key"
  echo "ansible_ssh_extra_args='-o UserKnownHostsFile=$work/known_hosts'"
  echo "[pelmora]"
  for n in $(seq 1 20); do echo "pel$n ansible_host=127.0.0.$n"; done
  echo "[pelmora:vars]"
  echo "ansible_connection=pelmora.admin.pelmora"
  echo "ansible_port=$port"
  echo "ansible_user=bench"
  echo "ansible_password='bench password'"
  echo "[local]"
  for n in $(seq 1 20); do echo "loc$n ansible_host=127.0.0.$n ansible_connection=local"; done
} > "$work/inventory"

mkdir -p "$work/dest" "$work/fetched"
cat > "$work/play.yml" <<PLAY
- hosts: all
  gather_facts: false
  tasks:
    - file: {path: "$work/dest/{{ inventory_hostname }}", state: directory}
    - copy: {content: "run {{ run }}\n", dest: "$work/dest/{{ inventory_hostname }}/a.txt"}
    - command: cat $work/dest/{{ inventory_hostname }}/a.txt
      register: shown
    - assert: {that: ["shown.stdout == 'run ' ~ run"]}
    - shell: echo line >> $work/dest/{{ inventory_hostname }}/b.txt
    - lineinfile: {path: "$work/dest/{{ inventory_hostname }}/a.txt", line: "added"}
    - stat: {path: "$work/dest/{{ inventory_hostname }}/a.txt"}
    - template: {src: "$work/play.yml", dest: "$work/dest/{{ inventory_hostname }}/t.yml"}
    - fetch: {src: "$work/dest/{{ inventory_hostname }}/a.txt", dest: "$work/fetched/"}
    - file: {path: "$work/dest/{{ inventory_hostname }}/b.txt", state: absent}
PLAY

export ANSIBLE_COLLECTIONS_PATH=$source/ansible PYTHONPATH=$build/python
export ANSIBLE_HOME=$work/home ANSIBLE_LOCAL_TEMP=$work/local-tmp
export ANSIBLE_SSH_CONTROL_PATH_DIR=$work/cp PELMORA_CONTROL_PATH_DIR=$work/keepers ANSIBLE_NOCOLOR=1
run() {  # run GROUP PROGRAM ARGS...: one Ansible run, its time in seconds on stdout
  local group=$1 program=$2 start status
  shift 2
  start=$EPOCHREALTIME
  status=0
  "$program" -i "$work/inventory" "$@" > "$work/last-$group.log" 2>&1 || status=$?
  if ((status != 0)); then
    echo "$program over $group failed ($status):" >&2
    tail -40 "$work/last-$group.log" >&2
    exit 1
  fi
  echo "$EPOCHREALTIME - $start" | bc
}
median() { printf '%s\n' "$@" | sort -n | sed -n "$(( ($# + 1) / 2 ))p"; }
measure() {  # measure NAME ARGS...: both groups REPEATS times, alternating; GROUP in ARGS
  local name=$1 ssh_times=() pel_times=() local_times=() i  # becomes the group, RUN the
  shift                                                       # run's number
  for i in $(seq 1 "$repeats"); do
    echo "$name run $i $RANDOM" > "$work/payload"
    local args=("${@//RUN/$i}")
    ssh_times+=("$(run ssh "${args[@]//GROUP/ssh}")")
    pel_times+=("$(run pelmora "${args[@]//GROUP/pelmora}")")
    local_times+=("$(run local "${args[@]//GROUP/local}")")
  done
  local s p l
  s=$(median "${ssh_times[@]}") p=$(median "${pel_times[@]}") l=$(median "${local_times[@]}")
  printf '%-26s ssh %6.2f s  pelmora %6.2f s  ratio %5.2fx   local %6.2f s (ssh/local %5.2fx)\n' \
    "$name" "$s" "$p" "$(echo "scale=3; $s / $p" | bc)" "$l" "$(echo "scale=3; $s / $l" | bc)"
  printf '%-26s runs: ssh %s; pelmora %s; local %s\n' "" "${ssh_times[*]}" "${pel_times[*]}" \
    "${local_times[*]}"
}

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) cores; $(ansible --version 2>/dev/null | sed -n 1p)"
measure "ad-hoc command, 20 hosts" ansible GROUP -m command -a true
measure "ad-hoc copy, 20 hosts" ansible GROUP -m copy \
  -a "src=$work/payload dest=$work/dest/{{ inventory_hostname }}.txt"
measure "playbook of 10 tasks" ansible-playbook -l GROUP -e run=RUN \
  "$work/play.yml"
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
