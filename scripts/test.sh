#!/usr/bin/env bash
# The test command: installs what it needs, builds, and runs every test twice,
# plain and with AddressSanitizer + UndefinedBehaviorSanitizer; the sanitizer
# leg ends with a short run of every fuzz target (L3VPN_FUZZ_SECONDS, default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

jobs=$(nproc)
run_leg() {
  local dir=$1; shift
  echo "== configure $dir $*"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  echo "== build $dir"
  cmake --build "$dir" -j "$jobs"
  echo "== test $dir"
  (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

run_leg build
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_leg build-asan -DL3VPN_SANITIZE=ON -DL3VPN_BENCH=OFF

echo "== fuzz (sanitizer leg)"
scripts/fuzz.sh "${L3VPN_FUZZ_SECONDS:-60}"
