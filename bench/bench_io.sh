#!/usr/bin/env bash
# Volume file speed: kep reads a 64x64x32x300 float NIfTI file and writes it
# back, beside nibabel doing the same (load as float32, save) and `cat`.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
export KEP="${KEP:-$here/../build/kep}"
exec /usr/bin/python3 "$here/bench_io.py" "$@"
