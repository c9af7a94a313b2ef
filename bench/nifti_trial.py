"""The 48-file trial: NIfTI files as other tools write them, read and written
back by kep, compared with nibabel.

The files are the scans Debian ships with nibabel, nipy and nifticlib, and
files converted or re-saved from them by nibabel (its defaults: an sform and no
quaternion; float64 from every scaled format). For each file kep runs
`read <file> v` and `write-float out.nii v`; the written file is compared with
what nibabel reads from the original: shape, values (largest difference over
the largest magnitude) and the affine (largest displacement of the eight
corners of the voxel grid, in mm). A file either matches, is refused with a
message naming the reason; a rotated file must come back with its rotation
(anything else is a fault: mirrored, values differ, corners moved, rotation
lost). Prints a Markdown table; the exit status is 1 when a file is at fault.

    python3 bench/nifti_trial.py [--kep build/kep] [--keep DIR]
"""
import argparse
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

import nibabel as nib
import numpy as np

NIBABEL = Path(os.path.dirname(nib.__file__)) / "tests" / "data"
NIPY = Path("/usr/lib/python3/dist-packages/nipy")
NIFTICLIB = Path("/usr/share/doc/libnifti2-2/examples/ATestReferenceImageForReadingAndWriting.nii.gz")


def shipped():
    """(name, path, where it comes from) of the NIfTI files as shipped."""
    files = [(p.name, p, "nibabel") for p in sorted(NIBABEL.glob("*.nii")) + sorted(NIBABEL.glob("*.nii.gz"))]
    for rel in ("testing/functional.nii.gz", "testing/anatomical.nii.gz", "labs/spatial_models/tests/some_blobs.nii"):
        if (NIPY / rel).exists():
            files.append(("nipy " + Path(rel).name, NIPY / rel, "nipy"))
    if NIFTICLIB.exists():
        files.append((NIFTICLIB.name, NIFTICLIB, "nifticlib"))
    return files


def converted(directory):
    """Scans of other formats saved as NIfTI by nibabel, as a user would: the
    scaled values (float64) and the affine."""
    out = []
    names = ["phantom_EPI_asc_CLEAR_2_1.PAR", "phantom_varscale.PAR", "minc1-no-att.mnc", "minc1_1_scale.mnc",
             "minc1_4d.mnc", "minc2-4d-d.mnc", "minc2-no-att.mnc", "minc2_1_scale.mnc", "minc2_4d.mnc", "small.mnc",
             "tiny.mnc", "test.mgz", "example4d+orig.BRIK.gz", "scaled+tlrc.BRIK"]
    for name in names:
        img = nib.load(str(NIBABEL / name))
        path = directory / (name.split(".")[0].replace("+", "_") + "_from_" + name.split(".")[-1].lower() + ".nii")
        nib.save(nib.Nifti1Image(img.get_fdata(), img.affine), str(path))
        out.append((path.name, path, "nibabel from " + name))
    return out


def variants(directory):
    """Files nibabel writes from the shipped scans: re-saved with its default
    header, other data types, NIfTI-2, extra dimensions, other codes."""
    out = []

    def save(img, name, origin):
        path = directory / name
        nib.save(img, str(path))
        out.append((name, path, origin))

    func = nib.load(str(NIBABEL / "functional.nii"))
    anat = nib.load(str(NIBABEL / "anatomical.nii"))
    data = np.asanyarray(func.dataobj)
    for name, src in (("functional", func), ("anatomical", anat), ("example4d", nib.load(str(NIBABEL / "example4d.nii.gz")))):
        save(nib.Nifti1Image(np.asanyarray(src.dataobj), src.affine), f"{name}_resaved.nii", "nibabel re-save")
    nipy_func = nib.load(str(NIPY / "testing/functional.nii.gz"))
    save(nib.Nifti1Image(np.asanyarray(nipy_func.dataobj), nipy_func.affine), "nipy_functional_resaved.nii.gz",
         "nibabel re-save")
    for dtype in (np.uint8, np.int8, np.int16, np.uint16, np.int32, np.uint32, np.int64, np.uint64, np.float32,
                  np.float64):
        info = np.iinfo(dtype) if np.issubdtype(dtype, np.integer) else None
        values = np.clip(data, info.min, info.max) if info else data
        save(nib.Nifti1Image(values.astype(dtype), func.affine, dtype=dtype),
             f"functional_{np.dtype(dtype).name}.nii", "nibabel, data type")
    save(nib.Nifti2Image(np.asanyarray(anat.dataobj), anat.affine), "anatomical_nifti2.nii", "nibabel NIfTI-2")
    save(nib.Nifti2Image(data, func.affine), "functional_nifti2.nii.gz", "nibabel NIfTI-2")
    save(nib.Nifti1Image(data[..., np.newaxis], func.affine), "functional_dim5_trailing1.nii", "nibabel 5-D")
    qonly = nib.Nifti1Image(np.asanyarray(anat.dataobj), None)
    qonly.header.set_qform(anat.affine, code=1)
    qonly.header.set_sform(None, code=0)
    save(qonly, "anatomical_qform_only.nii", "nibabel, quaternion only")
    resampled = nib.load(str(NIBABEL / "resampled_anat_moved.nii"))
    big = nib.Nifti1Image(resampled.get_fdata(), resampled.affine, nib.Nifti1Header(endianness=">"),
                          dtype=np.float64)
    save(big, "resampled_big_endian_float64.nii", "nibabel, big-endian")
    blobs = nib.load(str(NIPY / "labs/spatial_models/tests/some_blobs.nii"))
    scaled = nib.Nifti1Image(blobs.get_fdata(), blobs.affine)
    scaled.set_data_dtype(np.int16)  # nibabel picks scl_slope and scl_inter
    save(scaled, "some_blobs_scaled_int16.nii", "nibabel, scaled")
    save(nib.Nifti1Image(data.reshape(17, 21, 3, 10, 2), func.affine), "functional_5d.nii", "nibabel 5-D")
    std = nib.load(str(NIBABEL / "standard.nii.gz"))
    rgb = np.zeros(std.shape, dtype=[("R", "u1"), ("G", "u1"), ("B", "u1")])
    save(nib.Nifti1Image(rgb, std.affine), "standard_rgb24.nii", "nibabel, RGB")
    return out


def corners(shape):
    ranges = [(0, n - 1) for n in shape[:3]]
    return np.array([[i, j, k, 1] for i in ranges[0] for j in ranges[1] for k in ranges[2]], dtype=float).T


def axis_signs(affine):
    """Per voxel axis: the world axis it mostly runs along, and its sign."""
    m = affine[:3, :3]
    return [(int(np.argmax(np.abs(m[:, j]))), bool(m[np.argmax(np.abs(m[:, j])), j] > 0)) for j in range(3)]


def trial(kep, name, path, work):
    img = nib.load(str(path))
    expected = np.asanyarray(img.get_fdata()) if img.get_data_dtype().fields is None else None
    shape = img.shape
    kind = f"{type(img).__name__} {img.get_data_dtype()}"
    out = work / "out.nii"
    if out.exists():
        out.unlink()
    proc = subprocess.run([str(kep)], input=f"read {path} v\nwrite-float out.nii v\nquit\n".encode(), cwd=work,
                          capture_output=True, timeout=600)
    text = proc.stdout.decode(errors="replace").replace("kep > ", "")
    row = dict(name=name, kind=kind, shape="x".join(map(str, shape)))
    if not out.exists():
        errors = [line for line in text.splitlines() if line.startswith("Error")]
        row.update(outcome="refused", note=errors[0] if errors else "no message")
        return row
    written = nib.load(str(out))
    got = np.asanyarray(written.dataobj).astype(np.float64)
    want = expected.reshape(shape[:3] + (-1,))
    if got.shape != want.shape:
        row.update(outcome="WRONG SHAPE", note=f"kep {got.shape}")
        return row
    # NaN samples (outside a resampled brain) must stay NaN where they are
    same_nan = bool(np.array_equal(np.isnan(got), np.isnan(want)))
    finite = ~np.isnan(want)
    scale = max(np.abs(want[finite]).max(), 1e-30) if finite.any() else 1.0
    value_error = float(np.abs(got[finite] - want[finite]).max() / scale) if finite.any() else 0.0
    if not same_nan:
        value_error = float("inf")
    hdr = img.header
    codes = (int(hdr["qform_code"]), int(hdr["sform_code"])) if "qform_code" in hdr else (1, 1)
    truth = img.affine if codes != (0, 0) else np.diag([*hdr.get_zooms()[:3], 1.0])
    c = corners(shape)
    moved = float(np.linalg.norm(written.affine @ c - truth @ c, axis=0).max())
    oblique = np.abs(truth[:3, :3] - np.diag(np.diag(truth[:3, :3]))).max() > 1e-6
    mirrored = axis_signs(written.affine) != axis_signs(truth) and not oblique
    row.update(values=f"{value_error:.1e}", corners=f"{moved:.2g}")
    method = next((line.split("Method ")[1].split(":")[0] for line in text.splitlines() if "uses Method" in line), "-")
    row["method"] = method
    if mirrored:
        row.update(outcome="MIRRORED", note="")
    elif value_error > 2e-7 * 4:
        row.update(outcome="VALUES DIFFER", note="")
    elif moved <= 0.01:
        row.update(outcome="match", note="rotated" if oblique else "")
    elif oblique:
        origin = float(np.linalg.norm(written.affine[:3, 3] - truth[:3, 3]))
        row.update(outcome="ROTATION LOST", note=f"origin within {origin:.2g} mm")
    else:
        row.update(outcome="CORNERS MOVED", note="")
    return row


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--kep", default=str(Path(__file__).resolve().parents[1] / "build" / "kep"))
    parser.add_argument("--keep", help="build the files in this directory and keep them")
    args = parser.parse_args()
    base = Path(args.keep) if args.keep else Path(tempfile.mkdtemp(prefix="kep-nifti-trial-"))
    files_dir, work = base / "files", base / "work"
    files_dir.mkdir(parents=True, exist_ok=True)
    work.mkdir(exist_ok=True)
    files = shipped() + converted(files_dir) + variants(files_dir)
    rows = [trial(Path(args.kep).resolve(), name, path, work) for name, path, origin in files]
    print(f"{len(rows)} files, kep = {args.kep}\n")
    print("| # | file | source | type | shape | kep | method | value error | corners (mm) | note |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    for i, ((name, path, origin), row) in enumerate(zip(files, rows), 1):
        print(f"| {i} | {name} | {origin} | {row['kind']} | {row['shape']} | {row['outcome']} | "
              f"{row.get('method', '')} | {row.get('values', '')} | {row.get('corners', '')} | {row.get('note', '')} |")
    counts = {}
    for row in rows:
        counts[row["outcome"]] = counts.get(row["outcome"], 0) + 1
    print("\n" + ", ".join(f"{k}: {v}" for k, v in sorted(counts.items())))
    if not args.keep:
        shutil.rmtree(base)
    bad = sum(v for k, v in counts.items() if k not in ("match", "refused"))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
