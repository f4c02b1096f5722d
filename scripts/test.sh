#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${KAVREL_BUILD_DIR:-$root/build}"
KAVREL_BUILD_DIR="$build" "$root/scripts/build.sh" "$@"
cd "$build"
ctest --output-on-failure -j "$(nproc)"
