#!/usr/bin/env bash
# Breaks the product on purpose, one line at a time, and lists which tests
# catch each break: a test suite that catches none of them would pass for a
# broken product. Each line of the table (scripts/mutations.txt by default)
# names a file and a perl substitution that must match exactly once; the
# file is restored after each run.
#   scripts/mutation-check.sh [BUILD_DIR] [TABLE] [ID...]
# BUILD_DIR defaults to build/mutation (configured with the default preset's
# settings on first use). Prints one line per break: id, caught-by count,
# the catching tests. Exits 1 when a break is caught by no test.
# MUTATION_TARGETS (e.g. platform_tests) builds only those targets and
# MUTATION_CTEST_ARGS (e.g. "-L platform") narrows the tests run, for a
# table whose breaks one test program should catch on its own.
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/mutation}
table=${2:-scripts/mutations.txt}
shift 2 2>/dev/null || shift $#
only=" $* "

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVSVC_BUILD_BENCH=OFF >/dev/null || exit 1
fi
targets=()
for t in ${MUTATION_TARGETS:-}; do targets+=(--target "$t"); done
read -r -a ctest_args <<<"${MUTATION_CTEST_ARGS:-}"
cmake --build "$build" -j2 "${targets[@]}" >/dev/null || { echo "the unbroken tree does not build" >&2; exit 1; }

uncaught=0
while IFS=$'\t' read -r id file expr what; do
  case $id in ''|\#*) continue ;; esac
  [ "$only" = "  " ] || [[ $only == *" $id "* ]] || continue
  cp "$file" "$file.orig"
  count=$(perl -0 -e '$_ = do { local $/; <STDIN> }; my $n = ('"$expr"'); print $n + 0' <"$file")
  if [ "$count" != 1 ]; then
    echo "$id  NOT APPLIED ($count matches): $what"
    rm -f "$file.orig"
    uncaught=1
    continue
  fi
  perl -0pi -e "$expr" "$file"
  if ! cmake --build "$build" -j2 "${targets[@]}" >/dev/null 2>&1; then
    echo "$id  caught by the build: $what"
  else
    failed=$(cd "$build" && ctest -j2 --timeout 300 "${ctest_args[@]}" 2>/dev/null |
             sed -n 's/^[[:space:]]*[0-9]* - \(.*\) (\(Failed\|Timeout\|Exception\|SEGFAULT\|Subprocess aborted\)).*$/\1/p' |
             tr '\n' ' ')
    n=$(wc -w <<<"$failed")
    [ "$n" -eq 0 ] && uncaught=1
    echo "$id  $n  $what: $failed"
  fi
  mv "$file.orig" "$file"
  touch "$file"
done <"$table"
cmake --build "$build" -j2 "${targets[@]}" >/dev/null 2>&1
exit $uncaught
