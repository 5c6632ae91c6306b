#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing.
set -euo pipefail
packages=(build-essential cmake pkg-config libsqlite3-dev zlib1g-dev
          libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y "${missing[@]}"
fi
