#!/usr/bin/env bash
# The GLM of a whole study, files to effect maps, kep beside nipy (OLS and AR(1)):
#   bash bench/bench_glm_study.sh [--whole-brain] [--repeats N] [--keep DIR]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
export KEP="${KEP:-$here/../build/kep}"
exec /usr/bin/python3 "$here/bench_glm_study.py" "$@"
