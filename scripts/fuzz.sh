#!/usr/bin/env bash
# Builds the fuzz configuration (clang, libFuzzer, ASan + UBSan) and runs each
# fuzz target for a while on a scratch copy of its seed corpus; the inputs it
# finds stay out of the tree. The regression inputs of fuzz/regress/ are
# replayed first. Fails when any target crashes; the crashing input is kept
# in the work directory and named in the output.
#
#   scripts/fuzz.sh [seconds per target, default 60] [target ...]
#
# Environment: L3VPN_FUZZ_BUILD (build dir, default build-fuzz),
# L3VPN_FUZZ_WORK (scratch dir, default <build>/fuzz-work), JOBS (build jobs).
set -euo pipefail
cd "$(dirname "$0")/.."

secs=${1:-60}
[ $# -gt 0 ] && shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(fuzz_parse fuzz_keytext fuzz_ssat fuzz_format)
build=${L3VPN_FUZZ_BUILD:-build-fuzz}
work=${L3VPN_FUZZ_WORK:-$build/fuzz-work}

echo "== configure $build"
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DL3VPN_FUZZ=ON -DL3VPN_SANITIZE=ON -DL3VPN_TESTS=OFF >/dev/null
echo "== build ${targets[*]}"
cmake --build "$build" -j "${JOBS:-2}" --target "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

failed=()
summary=()
for t in "${targets[@]}"; do
  bin=$build/fuzz/$t
  dir=$work/$t
  rm -rf "$dir"
  mkdir -p "$dir/corpus"
  cp -r "fuzz/corpus/$t/." "$dir/corpus/"
  log=$dir/log

  if [ -d "fuzz/regress/$t" ] && [ -n "$(ls -A "fuzz/regress/$t")" ]; then
    echo "== $t: regression inputs"
    if ! "$bin" -artifact_prefix="$dir/" fuzz/regress/"$t"/* >"$dir/regress.log" 2>&1; then
      tail -n 30 "$dir/regress.log"
      failed+=("$t (regression input, see $dir/regress.log)")
      continue
    fi
  fi

  echo "== $t: ${secs}s"
  # One process: the machine is shared, and a crash ends the run with its input.
  if "$bin" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$dir/" "$dir/corpus" >"$log" 2>&1; then
    status=ok
  else
    status=CRASH
    tail -n 40 "$log"
    failed+=("$t (input: $(ls "$dir"/crash-* "$dir"/leak-* "$dir"/timeout-* "$dir"/oom-* \
      2>/dev/null | head -n 1), log: $log)")
  fi
  done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1 || true)
  [ -n "$done_line" ] || done_line=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
  cov=$(sed -nE 's/.* cov: ([0-9]+) ft: ([0-9]+).*/cov \1, ft \2/p' <<<"$done_line")
  runs=$(sed -nE 's/^stat::number_of_executed_units:[[:space:]]+([0-9]+)/\1/p' "$log")
  rate=$(sed -nE 's/^stat::average_exec_per_sec:[[:space:]]+([0-9]+)/\1/p' "$log")
  corp=$(ls "$dir/corpus" | wc -l)
  summary+=("$(printf '%-14s %-6s runs %-10s exec/s %-7s %-20s corpus %s' \
    "$t" "$status" "${runs:-?}" "${rate:-?}" "${cov:-?}" "$corp")")
done

echo "== summary (${secs}s per target)"
printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
  echo "== FAILED"
  printf '  %s\n' "${failed[@]}"
  exit 1
fi
