"""False-positive rate of the GLM's exact p on null data: kep (no noise model, AR 1, AR 2)
beside nipy's 'ar1' model fitted to the same data with the same design matrix.

Null data (a baseline of 1000 plus noise, no response) on a grid of voxels, one run per
timing: TR 2 s with 300 images, and TR 0.7 s with 600 images. Designs: on/off blocks of 12 s,
on/off blocks of 40 s, and random 1 s events (onsets 2 to 10 s apart). Noise: white, AR(1)
with coefficient 0.4, and AR(2) with coefficients 0.5 and -0.2, independent from voxel to
voxel. kep runs read-GLM and GLM-map-conditions on condition "1" (two-sided p of t); the
peer gets the design kep fits (the event column, peak 1, and the run's polynomial baseline of
three terms) and its two-sided p from nipy's t and degrees of freedom.

For each case the fraction of voxels with p < 0.05 and p < 0.001 is printed. Targets: with an
AR order at least that of the noise, every rate within 20 % of nominal (0.04-0.06 and
0.0008-0.0012), and the 40 s design's rate no more than 1.2 times the 12 s design's.

Usage: bench_glm_fpr.py [--size full|medium|small] [--cases all|quick] [--no-peer]
  full: 64x64x32 voxels (131072 per case); medium 32x32x16; small 16x16x8.
"""
import argparse
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import nibabel as nib
import numpy as np
from scipy import stats

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "e2e"))
import glm_model as gm  # noqa: E402

KEP = os.environ.get("KEP", str(HERE.parent / "build" / "kep"))
SIZES = {"full": (64, 64, 32), "medium": (32, 32, 16), "small": (16, 16, 8)}
TIMINGS = [(2.0, 300), (0.7, 600)]
NOISES = {"white": [], "AR(1) 0.4": [0.4], "AR(2) 0.5,-0.2": [0.5, -0.2]}
AR_SMOOTH_MM = 8.0


def design_events(kind, tr, nimg, rng):
    """(on, off) seconds of event 1 in a run of nimg images."""
    length = tr * nimg
    if kind.startswith("blocks"):
        half = float(kind.split()[1])
        return [(on, on + half - tr / 2) for on in np.arange(half, length - half, 2 * half)]
    events, t = [], 5.0
    while t < length - 12:
        events.append((round(t, 2), round(t + 1.0, 2)))
        t += rng.uniform(2.0, 10.0)
    return events


class Case:
    def __init__(self, tr, nimg, design, noise, shape, seed):
        self.tr, self.nimg, self.design, self.noise, self.shape = tr, nimg, design, noise, shape
        self.rng = np.random.default_rng(seed)
        self.events = design_events(design, tr, nimg, self.rng)

    def write(self, directory, header):
        """The run file, its event file and a control file with `header`; returns the design."""
        events = "".join(f"{on:g} {off:g}\n" for on, off in self.events)
        (directory / "run.glm").write_text(f"{self.tr:g} {self.tr * self.nimg:g}\n\n1\n{events}")
        (directory / "study.glm").write_text(f"baseline-terms 3\n{header}conditions 1\nruns:\nrun.nii run.glm\n")

    def data(self):
        noise = gm.ar_noise(self.rng, (*self.shape, self.nimg), NOISES[self.noise], sd=5.0)
        return (1000 + noise).astype(np.float32)

    def design_matrix(self):
        """kep's model of this run: the event column sampled at the images, peak 1, then
        the baseline terms, as the numpy model of the tests builds it."""
        t = np.arange(self.nimg) * self.tr
        x = np.zeros(self.nimg)
        for on, off in self.events:
            x[(t >= on) & (t <= off)] += 1
        u = np.arange(self.nimg) / (self.nimg - 1)
        return np.column_stack([x / x.max(), np.ones(self.nimg), u - 0.5, u ** 2 - float(np.float32(1 / 3))])


def kep_p(directory, case, volume, order):
    header = f"AR {order} {AR_SMOOTH_MM:g}\n" if order else ""
    case.write(directory, header)
    proc = subprocess.run([KEP, "fpr.com"], cwd=directory, capture_output=True, text=True, timeout=3600)
    out = directory / "p.nii"
    if not out.exists():
        sys.exit(f"kep failed:\n{proc.stdout[-2000:]}\n{proc.stderr[-2000:]}")
    p = np.asarray(nib.load(str(out)).dataobj).ravel()
    out.unlink()
    return p


def nipy_p(case, volume):
    from nipy.modalities.fmri.glm import GeneralLinearModel
    X = case.design_matrix()
    Y = volume.reshape(-1, volume.shape[3]).T.astype(np.float64)
    model = GeneralLinearModel(X)
    model.fit(Y, model="ar1")
    contrast = model.contrast(np.eye(X.shape[1])[0])
    t = np.asarray(contrast.stat()).ravel()
    return 2 * stats.t.sf(np.abs(t), contrast.dof)


def rates(p):
    return float(np.mean(p < 0.05)), float(np.mean(p < 0.001))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--size", choices=SIZES, default="full")
    parser.add_argument("--cases", choices=["all", "quick"], default="all",
                        help="quick: TR 2 s only, AR(1) noise only")
    parser.add_argument("--no-peer", action="store_true")
    args = parser.parse_args()
    shape = SIZES[args.size]
    timings = TIMINGS if args.cases == "all" else TIMINGS[:1]
    noises = list(NOISES) if args.cases == "all" else ["AR(1) 0.4"]
    print(f"{shape[0]}x{shape[1]}x{shape[2]} voxels per case; AR coefficient maps smoothed {AR_SMOOTH_MM:g} mm; "
          f"voxels 3x3x4 mm")
    print("| TR, images | design | noise | kep no AR | kep AR 1 | kep AR 2 | nipy ar1 |")
    print("|---|---|---|---|---|---|---|")
    seed = 100
    started = time.time()
    with tempfile.TemporaryDirectory() as tmp:
        directory = Path(tmp)
        (directory / "fpr.com").write_text(
            "read-GLM study.glm\nGLM-map-conditions maps\nwrite-float p.nii maps>3\n")
        for tr, nimg in timings:
            for design in ("blocks 12", "blocks 40", "events"):
                for noise in noises:
                    seed += 1
                    case = Case(tr, nimg, design, noise, shape, seed)
                    volume = case.data()
                    img = nib.Nifti1Image(volume, np.diag([3.0, 3.0, 4.0, 1.0]))
                    img.header.set_zooms((3.0, 3.0, 4.0, tr))
                    nib.save(img, str(directory / "run.nii"))
                    cells = []
                    for order in (0, 1, 2):
                        a, b = rates(kep_p(directory, case, volume, order))
                        cells.append(f"{a:.4f} / {b:.5f}")
                    if args.no_peer:
                        cells.append("-")
                    else:
                        a, b = rates(nipy_p(case, volume))
                        cells.append(f"{a:.4f} / {b:.5f}")
                    label = "12 s blocks" if design == "blocks 12" else "40 s blocks" if design == "blocks 40" \
                        else "random events"
                    print(f"| {tr:g} s, {nimg} | {label} | {noise} | " + " | ".join(cells) + " |", flush=True)
    print(f"cells: rate of p < 0.05 / rate of p < 0.001; {time.time() - started:.0f} s in all")


if __name__ == "__main__":
    main()
