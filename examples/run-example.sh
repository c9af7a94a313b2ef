#!/usr/bin/env bash
# Builds kep and runs the example analysis.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target kep
echo "The example study is not yet available in this build."
