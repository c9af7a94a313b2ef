#!/usr/bin/env bash
# Builds kep, makes the example study and runs its GLM analysis, with and
# without an AR(1) noise model. Effect, t and z maps are written as NIfTI
# files, with the FDR-thresholded overlay and the cluster table of event 1,
# and the AR(1) analysis ends with an HTML report.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
bash tools/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target kep >/dev/null
out="$top/out/example"
rm -rf "$out"
mkdir -p "$out/ols" "$out/ar1"
/usr/bin/python3 examples/make_study.py "$out/ols" >/dev/null
/usr/bin/python3 examples/make_study.py "$out/ar1" --ar 1 >/dev/null
for model in ols ar1; do
  (cd "$out/$model" && "$top/build/kep" "$top/examples/analyse.com" > analysis.log 2>&1) || true
  grep -E "contains|overlay of|hist\[|^condition|voxels pass|clusters of|^Exact p|Kolmogorov" "$out/$model/analysis.log" |
    sed "s/^/[$model] /"
  sed "s/^/[$model] /" "$out/$model/clusters1.clusters"
done
/usr/bin/python3 tools/kep-view montage "$out/ols/effects.nii" --volume 0 -o "$out/effects-event1.png" >/dev/null
echo "Effect maps: $out/ols/effects.nii and $out/ar1/effects.nii (one volume per event)"
echo "t and z maps of the conditions 1 2 3 1-2: $out/ar1/tmaps.nii, $out/ar1/zmaps.nii"
echo "Event 1, FDR 5 %: $out/ar1/visual-fdr.ovl; clusters beyond z 3.1: $out/ar1/clusters1.clusters"
echo "Picture of event 1's effect map: $out/effects-event1.png"
/usr/bin/python3 tools/kep-report "$out/ar1" --commands examples/analyse.com -o "$out/report.html" >/dev/null
echo "Report of the AR(1) analysis: $out/report.html"
