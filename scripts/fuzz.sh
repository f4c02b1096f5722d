#!/usr/bin/env bash
# Builds the libFuzzer harnesses of tests/fuzz with clang (ASan and UBSan)
# into build-fuzz/ (or $KAVREL_FUZZ_BUILD_DIR) and runs each for SECONDS
# (default 60), seeded from examples/ and tests/fuzz/corpus. Fails on the
# first finding; the input that found it is left in the build folder
# (crash-*, leak-*, timeout-*).
#   ./scripts/fuzz.sh          # 60 s each, as the CI does
#   ./scripts/fuzz.sh 3600     # an hour each
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${KAVREL_FUZZ_BUILD_DIR:-$root/build-fuzz}"
seconds="${1:-60}"
"$root/scripts/install-deps.sh" clang-14 libclang-rt-14-dev
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++-14 -DKAVREL_FUZZ=ON \
  -DKAVREL_BUILD_TESTS=OFF -DKAVREL_BUILD_TOOLS=OFF -DKAVREL_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target fuzz_target_import fuzz_parameters_import fuzz_connection_string \
  fuzz_piecewise_import

run() {
  local name="$1"
  shift
  local corpus="$build/corpus/$name"
  mkdir -p "$corpus"
  echo "fuzzing $name for ${seconds}s" >&2
  # New inputs go to the first folder; the seed folders are only read.
  (cd "$build" && "$build/bin/fuzz_$name" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 \
    -print_final_stats=1 "$corpus" "$@" </dev/null)
}
run target_import "$root/examples"
run piecewise_import "$root/examples"
run parameters_import "$root/examples"
run connection_string "$root/tests/fuzz/corpus/connection"
