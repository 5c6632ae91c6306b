#!/usr/bin/env bash
# Runs the channel and storm benchmarks on this machine and writes
# docs/performance.md with their tables, PNG plots of cost against size
# (docs/perf-*.png, drawn with gnuplot: scripts/deps.sh --bench) and a
# description of the machine they ran on.
#
#   scripts/bench-report.sh [build directory, default build/default]
#
# The numbers are this machine's on this day: on a shared machine other load
# shows in the wall times; the service's CPU per printer and the clients'
# sleeps per request do not depend on it.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/default}
bin="$build/bin"
for program in bench_channel_throughput bench_logon_storm ovaspoolsvc ovasctl; do
  [ -x "$bin/$program" ] || { echo "missing $bin/$program: build the default preset first" >&2; exit 1; }
done
command -v gnuplot >/dev/null || { echo "gnuplot is missing: scripts/deps.sh --bench" >&2; exit 1; }

out=docs/performance.md
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p docs

sizes=(50 100 200 400)
echo "channel throughput..." >&2
"$bin/bench_channel_throughput" 2000 1 4 16 >"$work/channel.txt"
echo "storm, 8 clients..." >&2
"$bin/bench_logon_storm" --clients 8 --shared 2 --postscript 5 "${sizes[@]}" >"$work/storm8.txt"
echo "storm, 16 clients..." >&2
"$bin/bench_logon_storm" --clients 16 --shared 2 --postscript 5 "${sizes[@]}" >"$work/storm16.txt"
echo "storm with 16 channel clients..." >&2
"$bin/bench_logon_storm" --clients 8 --shared 2 --postscript 5 --channel-clients 16 100 400 \
  >"$work/stormch.txt"

# The storm table's rows (up to the first blank line after the header).
rows() { awk 'NR > 2 && /^$/ { exit } NR > 2 && $1 ~ /^[0-9]+$/' "$1"; }
rows "$work/storm8.txt" >"$work/s8.dat"
rows "$work/storm16.txt" >"$work/s16.dat"

plot() {  # file title ylabel column-of-8 column-of-16 ...
  local png=$1 title=$2 ylabel=$3
  shift 3
  gnuplot <<EOF
set terminal pngcairo size 800,480 noenhanced
set output "$png"
set title "$title"
set xlabel "create requests (sessions x 5 printers)"
set ylabel "$ylabel"
set key top left
set grid
set yrange [0:*]
plot $*
EOF
}
plot docs/perf-service-cpu.png "Service CPU per printer" "ms" \
  "'$work/s8.dat' using 2:8 with linespoints title 'create, 8 clients'," \
  "'$work/s16.dat' using 2:8 with linespoints title 'create, 16 clients'," \
  "'$work/s8.dat' using 2:9 with linespoints title 'release, 8 clients'," \
  "'$work/s16.dat' using 2:9 with linespoints title 'release, 16 clients'"
plot docs/perf-latency.png "Latency seen by a client" "ms" \
  "'$work/s8.dat' using 2:4 with linespoints title 'create mean, 8 clients'," \
  "'$work/s16.dat' using 2:4 with linespoints title 'create mean, 16 clients'," \
  "'$work/s8.dat' using 2:5 with linespoints title 'create p99, 8 clients'," \
  "'$work/s8.dat' using 2:6 with linespoints title 'release mean per printer, 8 clients'"

cpu=$(lscpu | sed -n 's/^Model name: *//p' | head -1)
{
  echo "# Performance"
  echo
  echo "Measured with \`scripts/bench-report.sh\` on $(date -u +%Y-%m-%d)."
  echo
  echo "## Machine"
  echo
  echo "- CPU: ${cpu:-unknown}, $(nproc) cores available"
  echo "- Memory: $(awk '/MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo)"
  echo "- Kernel: $(uname -sr)"
  echo "- Load average when the run began: $(cut -d' ' -f1-3 /proc/loadavg) (a machine shared with"
  echo "  other work: wall times and rates carry its noise; CPU per printer and sleeps per request"
  echo "  do not)"
  echo
  echo "## What the numbers mean"
  echo
  echo "- *create cpu*, *release cpu*: the service process's CPU time per create request and per"
  echo "  printer released, in ms, with every spooler and registry write included."
  echo "- *create/ptr*, *release/ptr*: wall time of the phase over the requests (the service"
  echo "  serves one at a time); *create ms*, *release ms*: what a client waits, mean and p99."
  echo "- *vs first*: the service's create CPU per printer against the smallest size (growth)."
  echo "- Half the users share a session with another (\`--shared 2\`: their second session"
  echo "  finds the printers made and adds itself), and every fifth printer is a PostScript one"
  echo "  with a driver generated for it and deleted with it."
  echo "- *cache load ms*: the first request after a restart less the second (the cache is read"
  echo "  from the spooler's printers); *repair ms*: a repair after half the sessions vanished"
  echo "  from the session table (their printers go, or lose those sessions)."
  echo "- *sleeps/req*: voluntary context switches of all clients per request; *waiting CPU*:"
  echo "  the clients' CPU beyond one client's per request, as a share of one core."
  echo
  echo "## Request channel"
  echo
  echo '```'
  cat "$work/channel.txt"
  echo '```'
  echo
  echo "## Logon and logoff storms, 8 client processes"
  echo
  echo '```'
  cat "$work/storm8.txt"
  echo '```'
  echo
  echo "## Logon and logoff storms, 16 client processes"
  echo
  echo '```'
  cat "$work/storm16.txt"
  echo '```'
  echo
  echo "## The channel while the service creates printers"
  echo
  echo "16 more processes send requests without a handler through the create phase of a storm"
  echo "(8 storm clients); their rate and CPU:"
  echo
  echo '```'
  cat "$work/stormch.txt"
  echo '```'
  echo
  echo "## Plots"
  echo
  echo "![Service CPU per printer](perf-service-cpu.png)"
  echo
  echo "![Latency](perf-latency.png)"
  # Hand-written findings (comparisons with earlier code, known growth)
  # are kept in their own file and carried into every report.
  if [ -f docs/performance-notes.md ]; then
    echo
    cat docs/performance-notes.md
  fi
} >"$out"
echo "wrote $out" >&2
