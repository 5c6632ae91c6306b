#!/usr/bin/env bash
# The main job: builds (installing what is missing), then runs the service on a
# fresh embedded machine and shows client calls answered by it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" >/dev/null
bin="$PWD/build/default/bin"

export OVSVC_ROOT="${OVSVC_ROOT:-$(mktemp -d /tmp/ovsvc-demo-XXXXXX)}"
echo "== machine root: $OVSVC_ROOT"
key='HKLM\Software\Orvelle\Ovaspool'
"$bin/ovasctl" reg set "$key" DebugLevel dword:000000ff
"$bin/ovasctl" reg set "$key" DebugFile "$OVSVC_ROOT/trace.log"
"$bin/ovasctl" reg set "$key" TimeOutService dword:000003e8

echo "== a client call before the service runs"
"$bin/ovasctl" call repair || true

echo "== starting the service"
"$bin/ovaspoolsvc" &
service=$!
trap 'kill $service 2>/dev/null || true' EXIT
for _ in $(seq 200); do   # until the service's events exist
  "$bin/ovasctl" call repair 2>/dev/null | grep -q 'result -16' || break
  sleep 0.05
done

echo "== client calls"
"$bin/ovasctl" call version
"$bin/ovasctl" call timeouts
"$bin/ovasctl" call translate --printer "HP LaserJet 4" --class PCL --ip 10.0.0.7 \
  --client CLIENT7 --driver "HP LaserJet 4" --type 3 || true
"$bin/ovasctl" call repair || true
"$bin/ovasctl" call enum || true

echo "== stopping the service"
kill -TERM $service
wait $service
trap - EXIT
echo "== the service's own trace (last lines)"
grep -a '_SVC_' "$OVSVC_ROOT/trace.log" | tail -n 8
