#!/usr/bin/env bash
# The channel and event ping-pong measured on the embedded platform and
# under Wine in one run, with the embedded/Wine ratios. Needs both builds:
#   cmake --build --preset default && cmake --build --preset mingw
# usage: scripts/bench-compare.sh [round-trips] [requests-per-client] [client counts...]
set -euo pipefail
cd "$(dirname "$0")/.."
args=("${@:-20000}")
[ $# -ge 2 ] || args=("${args[0]}" 2000 1 4 16)

root=$(mktemp -d /tmp/ovsvc-bench-XXXXXX)
trap 'rm -rf "$root"' EXIT
echo "# embedded"
embedded=$(OVSVC_ROOT=$root build/default/bin/bench_channel_portable "${args[@]}")
echo "$embedded"
echo "# wine ($(wine --version))"
wine=$(scripts/wine-run.sh build/mingw/bin/bench_channel_portable.exe "${args[@]}" | tr -d '\r')
echo "$wine"

echo "# embedded / wine (time per operation: wine over embedded for pingpong; throughput: embedded over wine for channel)"
join -j1 <(echo "$embedded" | awk '{print $1"-"($3==""?"":$2), ($3==""?$2:$3)}' | sort) \
         <(echo "$wine" | awk '{print $1"-"($3==""?"":$2), ($3==""?$2:$3)}' | sort) |
  awk '{ if ($1 ~ /^pingpong/) printf "%-12s embedded %10s  wine %10s  wine/embedded time %.2f\n", $1, $2, $3, $3/$2;
         else printf "%-12s embedded %10s  wine %10s  embedded/wine throughput %.2f\n", $1, $2, $3, $2/$3 }'
