# Sourced by the fleet tests: test hosts in network namespaces, each joined to this one by its
# own veth link (SUBNET.N.1 here, SUBNET.N.2 there). The first namespace, "$tag-1", must exist
# already: making it is how a test finds out whether it may make namespaces at all.
#   make_hosts TAG SUBNET COUNT      e.g. make_hosts pf123 10.231 4
make_hosts() {
  local tag=$1 subnet=$2 count=$3 n
  for ((n = 1; n <= count; n++)); do
    [[ $n == 1 ]] || ip netns add "$tag-$n" || exit 2
    ip link add "$tag-h$n" type veth peer name "$tag-n$n" || exit 2
    ip link set "$tag-n$n" netns "$tag-$n"
    ip addr add "$subnet.$n.1/24" dev "$tag-h$n"
    ip link set "$tag-h$n" up
    ip -n "$tag-$n" addr add "$subnet.$n.2/24" dev "$tag-n$n"
    ip -n "$tag-$n" link set "$tag-n$n" up
    ip -n "$tag-$n" link set lo up
  done
}

# Starts pelmorad in namespace "$tag-N" with DIR/pelmorad.toml, listening on LISTEN, its audit
# lines in DIR/audit.log; appends its pid to the array `pids` and waits (20 s at most) until it
# has written its port to a FIFO. Ends the test when it does not start.
#   start_service_in TAG N DIR LISTEN SERVICE
start_service_in() {
  local tag=$1 n=$2 dir=$3 listen=$4 service=$5 fd port
  chmod 600 "$dir/pelmorad.toml"
  mkfifo "$dir/port"
  exec {fd}<>"$dir/port"
  ip netns exec "$tag-$n" "$service" --config "$dir/pelmorad.toml" --listen "$listen" \
    --port-file "$dir/port" 2> "$dir/audit.log" &
  pids+=($!)
  read -r -t 20 port <&"$fd" && [[ -n "$port" ]] || { echo "FAIL host $n did not start"; cat "$dir/audit.log"; exit 1; }
  exec {fd}<&-
}
