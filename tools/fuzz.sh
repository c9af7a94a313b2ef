#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a chosen time.
# Usage: tools/fuzz.sh [seconds per target] [target ...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DKEP_FUZZ=ON -DKEP_TESTS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j "$(nproc)" >/dev/null
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in fuzz/fuzz_*.cpp; do targets+=("$(basename "$f" .cpp)"); done
fi
for t in "${targets[@]}"; do
  name=${t#fuzz_}
  corpus=fuzz/corpus-$name
  mkdir -p "$corpus"
  seeds=()
  [ -d "fuzz/seeds/$name" ] && seeds=("fuzz/seeds/$name")
  echo "== $t for ${seconds}s"
  # Undefined behaviour is reported and survived unless told to stop: a
  # finding must end the run and leave its input behind like a crash.
  ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 "build-fuzz/$t" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
    -artifact_prefix="fuzz/crash-$name-" "$corpus" "${seeds[@]}" 2>&1 | grep -E "^#[0-9]+ *DONE|ERROR|Done|runtime error|Test unit written" || true
done
