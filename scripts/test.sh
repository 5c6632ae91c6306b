#!/usr/bin/env bash
# Installs what is missing, builds with the default preset and runs every
# test (arguments go to ctest).
# With --windows first: cross-builds OVSvc.dll, its programs and the Windows
# test programs with the mingw preset (the build checks every import against
# Wine's DLLs) and runs those tests under Wine (further arguments go to the
# test programs, e.g. --gtest_filter=...).
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" = "--windows" ]; then
  shift
  bash scripts/deps.sh --windows
  cmake --preset mingw
  cmake --build --preset mingw -j "$(nproc)"
  exec bash scripts/wine-test.sh build/mingw/bin "$@"
fi
bash scripts/deps.sh
cmake --preset default
cmake --build --preset default -j "$(nproc)"
ctest --preset default "$@"
