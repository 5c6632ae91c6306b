#!/usr/bin/env bash
# Builds every libFuzzer target (preset "fuzz": clang, ASan, UBSan) and runs
# each for the given number of minutes (default 10), two at a time, then
# prints the executions per target.
#   bash scripts/fuzz.sh [MINUTES] [TARGET...]
# Each target works on its own corpus under build/fuzz-corpus/<target>,
# seeded from fuzz/corpus/<target> and kept between runs, so the seeds in
# the repository stay small. A crash leaves its input in build/fuzz-crashes
# and makes the script exit non-zero.
set -uo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-10}
shift || true
case $minutes in '' | *[!0-9]*) echo "usage: scripts/fuzz.sh [MINUTES] [TARGET...]" >&2; exit 2 ;; esac

bash scripts/deps.sh --fuzz
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" >/dev/null || { echo "fuzz build failed" >&2; exit 1; }

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in fuzz/*.cpp; do targets+=("$(basename "$f" .cpp)"); done
fi
mkdir -p build/fuzz-corpus build/fuzz-crashes build/fuzz-logs

run() {
  local t=$1 work=build/fuzz-corpus/$1
  mkdir -p "$work" "fuzz/corpus/$t"
  nice -n 10 "build/fuzz/bin/fuzz_$t" -max_total_time=$((minutes * 60)) -max_len=8192 \
    -print_final_stats=1 -artifact_prefix="build/fuzz-crashes/$t-" \
    "$work" "fuzz/corpus/$t" >"build/fuzz-logs/$t.log" 2>&1
}

failed=0
pids=()
for t in "${targets[@]}"; do
  [ -x "build/fuzz/bin/fuzz_$t" ] || { echo "no target fuzz_$t" >&2; failed=1; continue; }
  run "$t" &
  pids+=($!)
  if [ ${#pids[@]} -ge 2 ]; then
    wait "${pids[0]}" || failed=1
    pids=("${pids[@]:1}")
  fi
done
for p in "${pids[@]}"; do wait "$p" || failed=1; done

printf '%-22s %14s %8s %s\n' target executions minutes result
for t in "${targets[@]}"; do
  log=build/fuzz-logs/$t.log
  [ -f "$log" ] || continue
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | tail -1)
  result=ok
  grep -q 'ERROR: \(libFuzzer\|AddressSanitizer\|UndefinedBehaviorSanitizer\)\|runtime error:' \
    "$log" && result="FOUND (see $log)"
  printf '%-22s %14s %8s %s\n' "$t" "${runs:-?}" "$minutes" "$result"
done
exit $failed
