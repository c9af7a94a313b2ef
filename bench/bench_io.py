"""Times read + write of one large float NIfTI file: kep, nibabel and cat, best of several runs."""
import os
import subprocess
import sys
import tempfile
import time

import nibabel as nib
import numpy as np

SHAPE = (64, 64, 32, 300)
REPEATS = int(os.environ.get("REPEATS", "5"))
KEP = os.environ["KEP"]

NIBABEL = """
import sys, nibabel as nib, numpy as np
img = nib.load(sys.argv[1])
data = img.get_fdata(dtype=np.float32)
nib.save(nib.Nifti1Image(data, img.affine, img.header), sys.argv[2])
"""


def best(command, cwd):
    times = []
    for _ in range(REPEATS):
        start = time.perf_counter()
        subprocess.run(command, cwd=cwd, check=True, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL,
                       shell=isinstance(command, str))
        times.append(time.perf_counter() - start)
    return min(times)


def main():
    with tempfile.TemporaryDirectory() as d:
        rng = np.random.default_rng(0)
        data = rng.normal(100, 10, SHAPE).astype(np.float32)
        img = nib.Nifti1Image(data, np.diag([3.0, 3.0, 4.0, 1.0]))
        nib.save(img, os.path.join(d, "big.nii"))
        size = os.path.getsize(os.path.join(d, "big.nii"))
        with open(os.path.join(d, "run.com"), "w") as f:
            f.write("read big.nii a\nwrite out.nii a\n")
        with open(os.path.join(d, "nb.py"), "w") as f:
            f.write(NIBABEL)

        def kep_once():
            if os.path.exists(os.path.join(d, "out.nii")):
                os.unlink(os.path.join(d, "out.nii"))
            subprocess.run([KEP, "run.com"], cwd=d, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)

        times = []
        for _ in range(REPEATS):
            start = time.perf_counter()
            kep_once()
            times.append(time.perf_counter() - start)
        t_kep = min(times)
        if os.environ.get("VERBOSE"):
            print("kep runs:", " ".join(f"{t:.3f}" for t in times))
        written = nib.load(os.path.join(d, "out.nii"))
        assert written.shape == SHAPE and np.array_equal(np.asanyarray(written.dataobj), data)
        t_nib = best([sys.executable, "nb.py", "big.nii", "nb.nii"], d)
        t_cat = best("cat big.nii > cat.nii", d)
        print(f"file: {SHAPE[0]}x{SHAPE[1]}x{SHAPE[2]}x{SHAPE[3]} float32, {size / 1e6:.1f} MB; best of {REPEATS}")
        print(f"kep     read + write   {t_kep:8.3f} s")
        print(f"nibabel load + save    {t_nib:8.3f} s   kep is {t_nib / t_kep:5.2f}x faster")
        print(f"cat     copy           {t_cat:8.3f} s   kep takes {t_kep / t_cat:5.2f}x the cat time")


if __name__ == "__main__":
    main()
