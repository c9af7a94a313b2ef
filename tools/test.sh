#!/usr/bin/env bash
# Builds kep and runs every test. With --sanitize, builds into build-asan with
# AddressSanitizer and UndefinedBehaviorSanitizer and runs the suite there.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
dir=build
extra=()
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  extra=(-DKEP_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug)
  export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
fi
cmake -S . -B "$dir" -DKEP_WERROR=ON "${extra[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
cd "$dir"
ctest --output-on-failure -j "$(nproc)"
