#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing.
# With --windows: what the Windows cross build and its Wine test run need.
# With --fuzz: clang and its sanitizer and libFuzzer runtimes (preset "fuzz").
# With --bench: gnuplot, which scripts/bench-report.sh draws its plots with.
set -euo pipefail
packages=(build-essential cmake pkg-config python3 libsqlite3-dev zlib1g-dev
          libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev)
if [ "${1:-}" = "--windows" ]; then
  packages=(cmake python3 libcli11-dev g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
            libz-mingw-w64-dev mingw-w64-tools googletest wine64 wine)
elif [ "${1:-}" = "--fuzz" ]; then
  packages+=(clang-14 libclang-rt-14-dev)
elif [ "${1:-}" = "--bench" ]; then
  packages+=(gnuplot-nox)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
