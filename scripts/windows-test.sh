#!/usr/bin/env bash
# Installs what is missing, cross-builds OVSvc.dll, its programs and the
# Windows test programs with the mingw preset (the build also checks every
# import against Wine's DLLs), then runs the tests under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh --windows
cmake --preset mingw
cmake --build --preset mingw -j "$(nproc)"
bash scripts/wine-test.sh build/mingw/bin "$@"
