#!/usr/bin/env bash
# install_consumer_test.sh BUILD_DIR CONSUMER_SOURCE CXX
set -euo pipefail
build=$1 source=$2 cxx=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
expected="No connection could be made because the target machine actively refused it."
sanitize=()
grep -q 'PELMORA_SANITIZE:BOOL=ON' "$build/CMakeCache.txt" && sanitize=(-fsanitize=address,undefined)
grep -q 'PELMORA_TSAN:BOOL=ON' "$build/CMakeCache.txt" && sanitize=(-fsanitize=thread)

# find_package(Pelmora)
cmake -S "$source" -B "$scratch/cmake" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$scratch/prefix" -DCMAKE_CXX_FLAGS="${sanitize[*]}" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
out=$(LD_LIBRARY_PATH="$scratch/prefix/lib" "$scratch/cmake/consumer")
[[ "$out" == "$expected" ]] || { echo "find_package consumer printed: $out" >&2; exit 1; }

# pkg-config
pcdir=$(dirname "$(find "$scratch/prefix" -name pelmora.pc | head -1)")
flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs pelmora)
# shellcheck disable=SC2086
"$cxx" "${sanitize[@]}" "$source/consumer.cc" $flags -o "$scratch/pc-consumer"
out=$(LD_LIBRARY_PATH="$scratch/prefix/lib" "$scratch/pc-consumer")
[[ "$out" == "$expected" ]] || { echo "pkg-config consumer printed: $out" >&2; exit 1; }
echo "installed library works through find_package and pkg-config"
