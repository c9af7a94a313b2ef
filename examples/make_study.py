#!/usr/bin/env python3
"""Makes the example fMRI study: two runs of a 32x32x12 head, TR 2 s, 80 images each.

Three events: '1' and '2' are blocks (visual and motor), '3' brief events with a
gamma-shaped response. Each event activates its own blob; every voxel inside the
head has a baseline of 1000 with slow drift and AR(1) noise; outside the head the
series are zero. The output is deterministic (fixed seed).

Usage: make_study.py OUTPUT_DIRECTORY [NX NY NZ IMAGES] [--ar ORDER]
(the sizes default to the example's; the benchmarks ask for larger studies)
"""
import sys
from pathlib import Path

import nibabel as nib
import numpy as np

NX, NY, NZ = 32, 32, 12
TR = 2.0
NT = 80
RES = (3.0, 3.0, 4.0)
RUNS = 2

BLOCKS = {
    "1": [(20, 40), (100, 120)],
    "2": [(60, 80), (130, 150)],
}
GAMMA_ONSETS = [10, 50, 90, 140]
GAMMA_TAU = 4.0
BLOBS = {  # event: (centre x, y, z), amplitude
    "1": ((9, 10, 5), 30.0),
    "2": ((22, 10, 6), 25.0),
    "3": ((16, 22, 6), 40.0),
}


def response(dt=0.1, length=60.0):
    """Sum of three exponentials that starts with zero slope (a BOLD-like response)."""
    tau = np.array([1.5, 4.5, 13.5])
    w = np.array([0.0, 0.7, -0.3])
    w[0] = -tau[0] * (w[1] / tau[1] + w[2] / tau[2])
    t = np.arange(0, length, dt)
    return (dt * w[None, :] / tau[None, :] * np.exp(-t[:, None] / tau[None, :])).sum(axis=1)


def regressors():
    """Event responses sampled at the images of one run (the same paradigm in both runs)."""
    dt = 0.1
    fine = np.arange(0, NT * TR, dt)
    h = response(dt)
    out = {}
    for ev, blocks in BLOCKS.items():
        box = np.zeros_like(fine)
        for on, off in blocks:
            box[(fine >= on) & (fine < off)] = 1.0
        conv = np.convolve(box, h)[: fine.size]
        out[ev] = conv[:: int(round(TR / dt))] / max(conv.max(), 1e-12)
    g = np.zeros(NT)
    t = np.arange(NT) * TR
    for on in GAMMA_ONSETS:
        x = np.clip((t - on) / GAMMA_TAU, 0, None)
        g += x * np.exp(1 - x)
    out["3"] = g
    return out


def head_mask():
    # An ellipsoid filling the same share of the field of view at any size.
    sx, sy, sz = NX / 32, NY / 32, NZ / 12
    x, y, z = np.meshgrid(np.arange(NX), np.arange(NY), np.arange(NZ), indexing="ij")
    return (((x - 15.5 * sx) / (13 * sx)) ** 2 + ((y - 15.5 * sy) / (14 * sy)) ** 2
            + ((z - 5.5 * sz) / (6.5 * sz)) ** 2 <= 1.0)


def blob(centre, sigma=1.6):
    x, y, z = np.meshgrid(np.arange(NX), np.arange(NY), np.arange(NZ), indexing="ij")
    cx, cy, cz = centre
    d2 = (x - cx) ** 2 + (y - cy) ** 2 + ((z - cz) * RES[2] / RES[0]) ** 2
    return np.exp(-d2 / (2 * sigma**2))


def main(out_dir, ar_order=0):
    out = Path(out_dir)
    out.mkdir(parents=True, exist_ok=True)
    rng = np.random.default_rng(20261122)
    mask = head_mask()
    reg = regressors()
    affine = np.diag([RES[0], RES[1], RES[2], 1.0])
    affine[:3, 3] = [-(NX - 1) * RES[0] / 2, -(NY - 1) * RES[1] / 2, -(NZ - 1) * RES[2] / 2]
    for run in range(RUNS):
        t = np.arange(NT) / (NT - 1)
        drift = 15.0 * (t - 0.5) + 8.0 * (t**2 - 1 / 3) * (run * 2 - 1)
        data = np.zeros((NX, NY, NZ, NT))
        data += 1000.0 + drift[None, None, None, :]
        for ev, (centre, amp) in BLOBS.items():
            data += amp * blob(centre)[..., None] * reg[ev][None, None, None, :]
        noise = np.zeros((NX, NY, NZ, NT))
        e = rng.normal(0.0, 8.0, size=(NX, NY, NZ, NT))
        noise[..., 0] = e[..., 0]
        for k in range(1, NT):
            noise[..., k] = 0.3 * noise[..., k - 1] + e[..., k]
        data += noise
        data *= mask[..., None]
        img = nib.Nifti1Image(data.astype(np.float32), affine)
        img.header.set_xyzt_units("mm", "sec")
        img.header["pixdim"][4] = TR
        nib.save(img, out / f"run{run + 1}.nii")
        with open(out / f"run{run + 1}.glm", "w") as f:
            f.write(f"{TR:g} {NT * TR:g}\n")
            for ev, blocks in BLOCKS.items():
                f.write(f"\n{ev} square\n")
                for on, off in blocks:
                    f.write(f"{on} {off}\n")
            f.write(f"\n3 gamma {GAMMA_TAU:g}\n")
            for on in GAMMA_ONSETS:
                f.write(f"{on} 1\n")
    (out / "study.glm").write_text(
        "# GLM control file of the example study\n"
        "baseline-terms 3      # constant, linear and quadratic drift per run\n"
        + (f"AR {ar_order}                  # autoregressive noise model\n" if ar_order else "")
        + "IRF BOLD-monkey       # exponential response preset for the block events\n"
        "conditions 1 2 3 1-2  # each event, and visual minus motor\n"
        "runs:\n"
        "run1.nii run1.glm\n"
        "run2.nii run2.glm\n")
    print(f"Example study written to {out}")


if __name__ == "__main__":
    args = [a for a in sys.argv[1:]]
    order = 0
    if "--ar" in args:
        i = args.index("--ar")
        order = int(args[i + 1])
        del args[i:i + 2]
    if len(args) >= 5:
        NX, NY, NZ, NT = (int(a) for a in args[1:5])
        scale = NT * TR / 160.0  # stretch the paradigm over longer runs
        BLOCKS = {k: [(on * scale, off * scale) for on, off in v] for k, v in BLOCKS.items()}
        GAMMA_ONSETS = [on * scale for on in GAMMA_ONSETS]
        BLOBS = {k: ((c[0] * NX / 32, c[1] * NY / 32, c[2] * NZ / 12), a) for k, (c, a) in BLOBS.items()}
    main(args[0] if args else "study", order)
