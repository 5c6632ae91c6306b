#!/usr/bin/env bash
# Runs one Windows program under Wine in a fresh Wine prefix, which is shut
# down and removed afterwards: scripts/wine-run.sh PROGRAM.exe [ARGS...]
# With WINEPREFIX already set, that prefix is used and kept (its wineserver
# is still stopped at the end unless OVSVC_WINE_KEEP_SERVER=1).
set -uo pipefail

if [[ $# -lt 1 ]]; then
  echo "usage: $0 PROGRAM.exe [ARGS...]" >&2
  exit 2
fi

export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
created=""
if [[ -z "${WINEPREFIX:-}" ]]; then
  WINEPREFIX=$(mktemp -d /tmp/ovsvc-wine-XXXXXX)
  export WINEPREFIX
  created=1
  wineboot -i >/dev/null 2>&1
  # A first boot can leave two service managers running, and service calls
  # then reach either one; the run starts from a single fresh one instead.
  wineserver -k >/dev/null 2>&1
  wineserver -w >/dev/null 2>&1
fi
wineserver -p >/dev/null 2>&1

wine "$@"
rc=$?

if [[ -n "$created" || "${OVSVC_WINE_KEEP_SERVER:-0}" != 1 ]]; then
  wineserver -k >/dev/null 2>&1
  wineserver -w >/dev/null 2>&1
fi
if [[ -n "$created" ]]; then
  rm -rf "$WINEPREFIX"
fi
exit $rc
