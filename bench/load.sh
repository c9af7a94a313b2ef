#!/usr/bin/env bash
# Load runs: a 100 000-line command file, 1000 read/transform/delete cycles
# (memory must not grow with the number of cycles) and a read loop over a
# 2 GiB file (memory must stay at one chunk). Prints wall time and max RSS.
# Usage: bench/load.sh [kep binary]   (default build/kep; KEP_ASAN=build-asan/kep
# also runs the cycles under LeakSanitizer)
set -euo pipefail
cd "$(dirname "$0")/.."
kep=$(realpath "${1:-${KEP:-build/kep}}")
asan=${KEP_ASAN:-}
[ -n "$asan" ] && asan=$(realpath "$asan")
work=$(mktemp -d /tmp/kep-load-XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work"

# Runs kep on a command file; prints "label: seconds s, max RSS kB".
measure() {
  local label=$1 file=$2
  shift 2
  /usr/bin/time -f "%e %M" -o time.txt "$@" "$kep" "$file" >out.txt 2>err.txt || true
  read -r seconds rss < <(tail -1 time.txt)
  printf '%-34s %8s s  %8s kB max RSS\n' "$label" "$seconds" "$rss"
  if grep -qi "error" out.txt err.txt; then
    echo "  unexpected error:" && grep -hi "error" out.txt err.txt | head -3
    exit 1
  fi
  last_rss=$rss
}

/usr/bin/python3 - <<'PY'
import numpy as np, nibabel as nib
rng = np.random.default_rng(1)
data = rng.normal(100, 10, (64, 64, 16, 4)).astype(np.float32)
nib.save(nib.Nifti1Image(data, np.diag([2, 2, 3, 1])), "cycle.nii")
PY

# 1. A long command file on a small stack.
{
  echo "read cycle.nii>0 a"
  for ((i = 0; i < 25000; i++)); do
    echo "add-constant 1 a"
    echo "# a comment line"
    echo "multiply-constant 0.5 a>0"
    echo "set io-increment 0"
  done
  echo "quit"
} >long.com
measure "100000-line command file" long.com

# 2. Read, transform, arithmetic, delete: the same memory after 100 and 1000 cycles.
cycles() {
  {
    for ((i = 0; i < $1; i++)); do
      printf 'read cycle.nii a\ntransform a\nmultiply-constant 2 a\ninverse-transform a\nabs a\ndelete a\n'
    done
    echo "quit"
  } >"cycles-$1.com"
}
cycles 100
cycles 1000
measure "100 read/FFT/delete cycles" cycles-100.com
rss100=$last_rss
measure "1000 read/FFT/delete cycles" cycles-1000.com
rss1000=$last_rss
growth=$((rss1000 - rss100))
echo "  RSS growth from 100 to 1000 cycles: ${growth} kB"
if [ "$growth" -gt 4096 ]; then
  echo "  memory grows with the number of cycles"
  exit 1
fi
if [ -n "$asan" ]; then
  ASAN_OPTIONS=detect_leaks=1 /usr/bin/time -f "%e %M" -o time.txt "$asan" cycles-100.com >out.txt 2>err.txt || true
  read -r seconds rss < <(tail -1 time.txt)
  if grep -q "LeakSanitizer" err.txt; then
    echo "  LeakSanitizer reports leaks:" && grep -A5 "LeakSanitizer" err.txt | head -20
    exit 1
  fi
  printf '%-34s %8s s  %8s kB max RSS, no leaks\n' "100 cycles under LeakSanitizer" "$seconds" "$rss"
fi

# 3. A read loop over a 2 GiB file (sparse: the reads still go through the
# whole file), processed 20 volumes at a time.
volumes=2048
printf 'x 64\ny 64\nz 64\nt %d\nstorage-type float\ndata-type magnitude\n' $volumes >big.hdr
truncate -s $((64 * 64 * 64 * 4 * volumes)) big.bfloat
printf 'read-loop big.bfloat v\nadd-constant 1 v\nmultiply-constant 2 v\nend-loop\nquit\n' >loop.com
measure "read loop over 2 GiB (2048 volumes)" loop.com
if [ "$last_rss" -gt 262144 ]; then
  echo "  the read loop holds more than one chunk in memory"
  exit 1
fi
echo "all load runs passed"
