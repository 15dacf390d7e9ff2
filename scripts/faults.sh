#!/bin/sh
# Faults, longer than the CTest suite: random kill points and random input
# changes (KILLS rounds), the store lost at random moments (LOSSES rounds),
# dropped links and outputs changed behind the daemon's back, then one table:
# lost, stale and wrong records against a fresh daemon, changed MPLS ids, exit
# statuses, writes on unchanged restarts, the longest Redis call of a data sync.
# Usage: scripts/faults.sh [BUILD_DIR] (default build); KILLS, LOSSES, SEED
# from the environment. Exit status 1 when any count that must be 0 is not.
set -eu
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "${1:-$ROOT/build}" && pwd)
# Only builds what is missing: the daemon, the tool and the driver.
cmake --build "$BUILD" -j2 --target ce_mpls_l3vpn l3vpn-ctl e2e_fault_soak >/dev/null
# The harness's own complaints (a debug command to a killed daemon) go to a file.
echo "details: $BUILD/faults.log"
L3VPN_BUILD_DIR=$BUILD exec "$BUILD/tests/e2e/e2e_fault_soak" "${KILLS:-50}" "${LOSSES:-40}" ${SEED:+"$SEED"} 2>"$BUILD/faults.log"
