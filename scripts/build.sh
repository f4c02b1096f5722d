#!/usr/bin/env bash
# Configures and builds into build/ (or $KAVREL_BUILD_DIR). Extra arguments go to cmake.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${KAVREL_BUILD_DIR:-$root/build}"
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE="${KAVREL_BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
