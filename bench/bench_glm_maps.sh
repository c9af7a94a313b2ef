#!/usr/bin/env bash
# GLM-map-conditions beside GLM-fit-events in one kep session, on the whole volume and in a mask:
#   bash bench/bench_glm_maps.sh [--whole-brain] [--repeats N] [--ar]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
export KEP="${KEP:-$here/../build/kep}"
exec /usr/bin/python3 "$here/bench_glm_maps.py" "$@"
