#!/usr/bin/env bash
# Installs the Debian packages the build needs; does nothing when all are present.
# Extra package names given as arguments are installed too (scripts/fuzz.sh).
set -euo pipefail

packages=(g++ cmake make ccache libsqlite3-dev libpugixml-dev libgtest-dev libcli11-dev libbenchmark-dev libicu-dev
  pkg-config libpq-dev postgresql mdbtools-dev libmdb3 "$@")
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}" >&2
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
