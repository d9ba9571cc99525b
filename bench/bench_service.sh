# Sourced by the benchmark scripts that start a real pelmorad: the configuration they share.
# bench_service_config WORK HASH prints the drive C (WORK/c), the account `bench` (password hash
# HASH, commands as root) and limits high enough for thousands of sessions at once.
bench_service_config() {
  cat <<CONF
[drives]
C = "$1/c"
[accounts.bench]
password = "$2"
commands = true
run_as = "root"
[limits]
sessions = 4096
sessions_per_address = 4096
unauthenticated = 4096
unauthenticated_start = 4096
commands = 256
CONF
}
