#!/bin/sh
# Builds the Release tree and runs the benchmarks: adds and deletes in process
# and through Redis, restart and memory, each beside its floor; prints one table.
# Extra arguments go to l3vpn_bench (--scale F, --rounds N, --inproc-only).
set -eu
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build-bench}
"$ROOT/scripts/deps.sh"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DL3VPN_TESTS=ON >/dev/null
ninja -C "$BUILD" -j2 ce_mpls_l3vpn l3vpn_bench >/dev/null
echo "machine: $(nproc) cpus, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
L3VPN_BUILD_DIR=$BUILD exec "$BUILD/bench/l3vpn_bench" "$@"
