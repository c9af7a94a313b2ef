"""Times read + write of one large float NIfTI file: kep, nibabel and cat, best of several runs."""
import os
import resource
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


def children_cpu():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def timed(run):
    """Best wall time and best processor time (user + system) of REPEATS runs."""
    walls, cpus = [], []
    for _ in range(REPEATS):
        cpu = children_cpu()
        start = time.perf_counter()
        run()
        walls.append(time.perf_counter() - start)
        cpus.append(children_cpu() - cpu)
    if os.environ.get("VERBOSE"):
        print("runs:", " ".join(f"{w:.3f}/{c:.3f}" for w, c in zip(walls, cpus)))
    return min(walls), min(cpus)


def command(args, cwd):
    return lambda: subprocess.run(args, cwd=cwd, check=True, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL,
                                  shell=isinstance(args, str))


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

        kep = timed(kep_once)
        written = nib.load(os.path.join(d, "out.nii"))
        assert written.shape == SHAPE and np.array_equal(np.asanyarray(written.dataobj), data)
        nibabel = timed(command([sys.executable, "nb.py", "big.nii", "nb.nii"], d))
        cat = timed(command("cat big.nii > cat.nii", d))
        print(f"file: {SHAPE[0]}x{SHAPE[1]}x{SHAPE[2]}x{SHAPE[3]} float32, {size / 1e6:.1f} MB; best of {REPEATS}")
        print("                       wall s    cpu s")
        for name, (wall, cpu) in (("kep     read + write", kep), ("nibabel load + save", nibabel),
                                  ("cat     copy", cat)):
            print(f"{name:22s} {wall:7.3f}  {cpu:7.3f}")
        print(f"nibabel / kep: {nibabel[0] / kep[0]:5.2f} (wall)  {nibabel[1] / kep[1]:5.2f} (cpu)")
        print(f"kep / cat:     {kep[0] / cat[0]:5.2f} (wall)  {kep[1] / cat[1]:5.2f} (cpu)")


if __name__ == "__main__":
    main()
