#!/usr/bin/env bash
# Fourier transform and k-space smoothing speed: kep against numpy on the same stack.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
export KEP="${KEP:-$here/../build/kep}"
exec /usr/bin/python3 "$here/bench_fft.py" "$@"
