#!/usr/bin/env bash
# Runs the Windows test programs of a mingw build under Wine, in one fresh
# Wine prefix that is removed afterwards, and lists every skipped test with
# its reason: scripts/wine-test.sh [BIN_DIR] [GTEST ARGS...]
set -uo pipefail
bin=${1:-build/mingw/bin}
shift || true
bin=$(cd "$bin" && pwd)

export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
WINEPREFIX=$(mktemp -d /tmp/ovsvc-wine-XXXXXX)
export WINEPREFIX
logs=$(mktemp -d /tmp/ovsvc-wine-logs-XXXXXX)
cleanup() {
  wineserver -k >/dev/null 2>&1
  wineserver -w >/dev/null 2>&1
  rm -rf "$WINEPREFIX"
}
trap cleanup EXIT

wineboot -i >/dev/null 2>&1
# A first boot can leave two service managers running, and service calls
# then reach either one; the run starts from a single fresh one instead.
wineserver -k >/dev/null 2>&1
wineserver -w >/dev/null 2>&1
wineserver -p >/dev/null 2>&1
wine --version

# The platform contract first, then the module's own tests, then the
# request channel across processes. Each test starts without the product key
# (the test support deletes it on Windows, whose registry the run shares).
module=("$bin"/module_tests.exe)
programs=()
for p in "$bin"/platform_*_tests.exe "${module[@]}" "$bin"/system_tests.exe; do
  [ -e "$p" ] && programs+=("$p")
done
if [ ${#programs[@]} -eq 0 ]; then
  echo "no Windows test programs in $bin" >&2
  exit 1
fi

# Module tests that need what only the embedded machine gives them, left out
# of the Wine run (suite: reason).
module_left_out=(
  "OwnStrings OwnModule OwnModuleLifetime: the module's resources live in OVSvc.dll, which module_tests does not load (system_tests reads them from the DLL)"
  "OvaspoolCommandTest: the printer-name markers are the module's string resources, and the writer program's lines end in CR LF there"
  "EventReport: reads the entries back from the embedded machine's event-log file"
  "TerminalServicesTest: needs a terminal server's session table and the embedded library switches"
  "TraceLogTest.WindowsPathsLandInTheMachineRoot TraceLogTest.NoDebugLevelSwitchesTracingOffForGood TraceLogTest.ProcessesAppendingAtOnceLoseNoLine: Windows paths that land in the embedded machine root, and a trace state other tests of the run share there"
  "VersionOfOtherModules: registers module resources with the embedded machine"
)
module_filter="-"
for entry in "${module_left_out[@]}"; do
  for name in ${entry%%:*}; do
    case $name in *.*) module_filter+="$name:" ;; *) module_filter+="$name.*:" ;; esac
  done
done

failed=0
for p in "${programs[@]}"; do
  name=$(basename "$p" .exe)
  echo "=== $name"
  filter=()
  [ "$name" = module_tests ] && filter=("--gtest_filter=${module_filter%:}")
  # Into a file, not a pipe: Wine's own background processes inherit the
  # output and would hold a pipe open. Windows programs end their lines
  # with CR LF; the log keeps LF only.
  timeout 900 wine "$p" --gtest_color=no "${filter[@]}" "$@" >"$logs/$name.log" 2>&1
  rc=$?
  sed -i 's/\r$//' "$logs/$name.log"
  if [ $rc -ne 0 ]; then
    failed=1
    cat "$logs/$name.log"
  fi
  grep -E '^\[ +(PASSED|FAILED|SKIPPED) +\] [0-9]+ test' "$logs/$name.log" || true
done

echo "=== checks Wine gets wrong (todo_wine: they ran and failed, as expected)"
for p in "${programs[@]}"; do
  name=$(basename "$p" .exe)
  grep -h ': todo_wine: ' "$logs/$name.log" | sed "s|^.*/tests/|  $name: tests/|" || true
done

echo "=== skipped tests and why"
if [ ${#module[@]} -gt 0 ]; then
  for entry in "${module_left_out[@]}"; do
    echo "  module_tests: ${entry%%:*} -- left out: ${entry#*: }"
  done
fi
for p in "${programs[@]}"; do
  name=$(basename "$p" .exe)
  # gtest prints the reason two lines above the test's SKIPPED line.
  awk -v prog="$name" '
    /Wine lacks this: |embedded platform feature: / { reason = $0; sub(/^.*(Wine lacks this: )/, "Wine lacks: ", reason); sub(/^.*(embedded platform feature: )/, "embedded only: ", reason) }
    /^\[  SKIPPED \] .* \([0-9]+ ms\)$/ { print "  " prog ": " $4 " -- " reason; reason = "" }
  ' "$logs/$name.log"
done
rm -rf "$logs"
exit $failed
