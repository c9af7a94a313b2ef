#!/usr/bin/env bash
# Motion correction: kep's register against dipy's rigid registration, accuracy and time per volume.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
export KEP="${KEP:-$here/../build/kep}"
exec /usr/bin/python3 "$here/bench_register.py" "$@"
