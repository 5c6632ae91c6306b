#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo on a fresh embedded machine.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)"
root="${OVSVC_ROOT:-$(mktemp -d /tmp/ovsvc-demo-XXXXXX)}"
export OVSVC_ROOT="$root"
bin=build/default/bin
echo "== machine root: $OVSVC_ROOT"
"$bin/ovasctl" demo
