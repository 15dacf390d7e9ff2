#!/bin/sh
# Soak: 200,000 random adds and deletes through a real Redis while the daemon
# runs, then checks outputs, node count and resident memory. Not part of CI.
# Extra arguments go to l3vpn_soak (--ops N, --seed S).
set -eu
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build-bench}
"$ROOT/scripts/deps.sh"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DL3VPN_TESTS=ON >/dev/null
ninja -C "$BUILD" -j2 ce_mpls_l3vpn l3vpn_soak >/dev/null
L3VPN_BUILD_DIR=$BUILD exec "$BUILD/bench/l3vpn_soak" "$@"
