#!/usr/bin/env bash
# False-positive rates of kep's exact p on null data beside nipy's ar1 model:
#   bash bench/bench_glm_fpr.sh [--size full|medium|small] [--cases all|quick] [--no-peer]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
export KEP="${KEP:-$here/../build/kep}"
exec /usr/bin/python3 "$here/bench_glm_fpr.py" "$@"
