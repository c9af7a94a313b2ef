#!/usr/bin/python3
"""Motion correction: kep's `register` against dipy's rigid registration on the same volumes.

A real scan Debian ships (nipy's anatomical.nii.gz, zero-padded so the head moves inside the
field of view) is moved by random rigid transforms (up to 3 mm and 3 degrees, cubic spline
resampling by scipy.ndimage) and given Gaussian noise of 1 % of its maximum. Both tools estimate
the motion of every volume against the first; the script prints the RMS error of the
translations (mm) and rotations (degrees) against the truth, and the CPU time per volume
(kep: the register command alone, its read subtracted; dipy: its optimisation)."""
import os
import resource
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import nibabel as nib
import numpy as np
from scipy import ndimage
from scipy.spatial.transform import Rotation

KEP = os.environ.get("KEP", str(Path(__file__).resolve().parents[1] / "build" / "kep"))
SCAN = "/usr/lib/python3/dist-packages/nipy/testing/anatomical.nii.gz"
VOLUMES = int(os.environ.get("VOLUMES", "8"))


def moved_series(seed=1):
    img = nib.load(SCAN)
    data = np.pad(np.asarray(img.dataobj, dtype=np.float64), 6)
    affine = img.affine.copy()
    affine[:3, 3] -= affine[:3, :3] @ np.full(3, 6.0)
    A = affine[:3, :3]
    Ai = np.linalg.inv(A)
    c = (np.array(data.shape) - 1) / 2.0
    rng = np.random.default_rng(seed)
    volumes, truth = [data], [np.zeros(6)]
    for _ in range(VOLUMES - 1):
        t, r = rng.uniform(-3, 3, 3), rng.uniform(-3, 3, 3)
        R = Rotation.from_euler("xyz", r, degrees=True).as_matrix()
        # A point at p mm from the centre moves to R p + t.
        M = Ai @ R.T @ A
        moved = ndimage.affine_transform(data, M, offset=c - M @ c - Ai @ R.T @ t, order=3)
        volumes.append(moved + rng.normal(0, 0.01 * data.max(), data.shape))
        truth.append(np.concatenate([t, r]))
    return np.stack(volumes, axis=-1).astype(np.float32), affine, np.array(truth)


def children_cpu():
    u = resource.getrusage(resource.RUSAGE_CHILDREN)
    return u.ru_utime + u.ru_stime


def run_kep(directory, commands):
    (directory / "run.com").write_text(commands)
    before = children_cpu()
    subprocess.run([KEP, "run.com"], cwd=directory, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                   stdin=subprocess.DEVNULL)
    return children_cpu() - before


def kep_estimates(series, affine):
    with tempfile.TemporaryDirectory() as d:
        d = Path(d)
        img = nib.Nifti1Image(series, affine)
        img.set_qform(affine, code=1)
        nib.save(img, d / "series.nii")
        read_only = min(run_kep(d, "read series.nii m\n") for _ in range(3))
        spent = min(run_kep(d, "read series.nii m\nregister m\n") for _ in range(3))
        estimates = np.loadtxt(d / "m.motion", skiprows=1)
    return estimates, max(spent - read_only, 1e-6) / (series.shape[-1] - 1)


def dipy_estimates(series, affine):
    from dipy.align.imaffine import AffineRegistration, MutualInformationMetric
    from dipy.align.transforms import RigidTransform3D

    reg = AffineRegistration(metric=MutualInformationMetric(32, None), level_iters=[10000, 1000, 100],
                             sigmas=[3.0, 1.0, 0.0], factors=[4, 2, 1], verbosity=0)
    centre = affine[:3, :3] @ ((np.array(series.shape[:3]) - 1) / 2.0) + affine[:3, 3]
    static = series[..., 0].astype(np.float64)
    estimates = [np.zeros(6)]
    start = time.process_time()
    for k in range(1, series.shape[-1]):
        mapping = reg.optimize(static, series[..., k].astype(np.float64), RigidTransform3D(), None,
                               affine, affine)
        R, offset = mapping.affine[:3, :3], mapping.affine[:3, 3]
        # The mapping takes static world points to moving ones; about the centre it is R p + t.
        t = offset - centre + R @ centre
        estimates.append(np.concatenate([t, Rotation.from_matrix(R).as_euler("xyz", degrees=True)]))
    return np.array(estimates), (time.process_time() - start) / (series.shape[-1] - 1)


def rms(estimates, truth):
    e = estimates[1:] - truth[1:]
    return np.sqrt(np.mean(e[:, :3] ** 2)), np.sqrt(np.mean(e[:, 3:] ** 2))


def main():
    series, affine, truth = moved_series()
    print(f"{series.shape[-1] - 1} moved volumes of {series.shape[:3]} voxels ({SCAN})")
    rows = [("kep register", *kep_estimates(series, affine))]
    rows.append(("dipy rigid (MI)", *dipy_estimates(series, affine)))
    print(f"{'tool':18} {'RMS mm':>9} {'RMS deg':>9} {'CPU s/volume':>13}")
    for name, estimates, seconds in rows:
        mm, deg = rms(estimates, truth)
        print(f"{name:18} {mm:9.4f} {deg:9.4f} {seconds:13.4f}")
    print(f"dipy / kep time per volume: {rows[1][2] / rows[0][2]:.1f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
