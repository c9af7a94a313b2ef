#!/usr/bin/env bash
# Speed of the image operations: kep against numpy on the same 128x128x32x100 complex stack.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
export BENCH_OPS="${BENCH_OPS:-$here/../build/bench_ops}"
exec /usr/bin/python3 "$here/bench_ops.py" "$@"
