#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a
# client project that finds it with find_package(kavrel).
set -euo pipefail
build="$1"
src="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$src/tests/package" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer" "$work/check.db"
