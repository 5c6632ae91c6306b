#!/usr/bin/env bash
# The cross build's emulator: runs a Windows program under Wine in the
# caller's prefix (or a fresh one); see wine-run.sh.
exec "$(dirname "$0")/wine-run.sh" "$@"
