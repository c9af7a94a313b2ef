#!/usr/bin/env bash
# The file-level benchmarks run with an earlier kep build and with this one, one
# after the other, and the Fourier and GLM benchmarks also with 2 threads:
#   KEP_BEFORE=/path/to/earlier/build/kep bash bench/bench_before_after.sh [--whole-brain]
# The earlier build must understand the same command files (no `set threads`
# is sent to it).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
after="${KEP:-$here/../build/kep}"
: "${KEP_BEFORE:?set KEP_BEFORE to the earlier kep binary}"
echo "== volume files: earlier build"; KEP="$KEP_BEFORE" bash "$here/bench_io.sh"
echo "== volume files: this build"; KEP="$after" bash "$here/bench_io.sh"
echo "== Fourier transforms: this build, 1 thread"; KEP="$after" KEP_THREADS=1 bash "$here/bench_fft.sh"
echo "== Fourier transforms: this build, 2 threads"; KEP="$after" KEP_THREADS=2 bash "$here/bench_fft.sh"
echo "== GLM study (the earlier build in the same repeats)"
KEP="$after" KEP_BEFORE="$KEP_BEFORE" bash "$here/bench_glm_study.sh" --threads 2 "$@"
