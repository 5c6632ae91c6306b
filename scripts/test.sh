#!/usr/bin/env bash
# Installs what is missing, builds with the default preset and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset default
cmake --build --preset default -j "$(nproc)"
ctest --preset default "$@"
