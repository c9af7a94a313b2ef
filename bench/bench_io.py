"""Times read + write of one large float NIfTI file: kep, nibabel and cat, best of several runs.

--large uses a 104x104x66x390 file (1.1 GB) instead of 64x64x32x300 (157 MB). With KEP_BEFORE set
to an earlier kep binary, that binary runs in the same repeats. Peak memory is each job's own
(os.wait4)."""
import os
import subprocess
import sys
import tempfile
import time

import nibabel as nib
import numpy as np

SHAPE = (104, 104, 66, 390) if "--large" in sys.argv else (64, 64, 32, 300)
REPEATS = int(os.environ.get("REPEATS", "5"))
KEP = os.environ["KEP"]
KEP_BEFORE = os.environ.get("KEP_BEFORE")

NIBABEL = """
import sys, nibabel as nib, numpy as np
img = nib.load(sys.argv[1])
data = img.get_fdata(dtype=np.float32)
nib.save(nib.Nifti1Image(data, img.affine, img.header), sys.argv[2])
"""


def timed(run):
    """Best wall time, best processor time (user + system) and largest peak memory (MB) of
    REPEATS runs."""
    walls, cpus, peaks = [], [], []
    for _ in range(REPEATS):
        start = time.perf_counter()
        cpu, peak = run()
        walls.append(time.perf_counter() - start)
        cpus.append(cpu)
        peaks.append(peak)
    if os.environ.get("VERBOSE"):
        print("runs:", " ".join(f"{w:.3f}/{c:.3f}" for w, c in zip(walls, cpus)))
    return min(walls), min(cpus), max(peaks)


def command(args, cwd):
    """Runs args (a shell line when a string) under /usr/bin/time, whose child starts small (a
    child of this process would count this process's memory as its own); its processor time
    and peak memory in MB."""
    args = ["/bin/sh", "-c", args] if isinstance(args, str) else args
    report = os.path.join(cwd, "time.txt")

    def run():
        subprocess.run(["/usr/bin/time", "-f", "%U %S %M", "-o", report, *args], cwd=cwd,
                       stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        user, system, peak = open(report).read().split()[-3:]
        return float(user) + float(system), int(peak) / 1024
    return run


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

        def fresh(job, output):
            """The job with its output file removed first (not timed): each writes a new file, as
            truncating an old one would cost it the freeing of its pages."""
            def once():
                if os.path.exists(os.path.join(d, output)):
                    os.unlink(os.path.join(d, output))
                return job()
            return once

        def kep_job(binary):
            return fresh(command([binary, "run.com"], d), "out.nii")

        rows = [("kep     read + write", timed(kep_job(KEP)))]
        written = nib.load(os.path.join(d, "out.nii"))
        assert written.shape == SHAPE and np.array_equal(np.asanyarray(written.dataobj), data)
        if KEP_BEFORE:
            rows.append(("earlier kep", timed(kep_job(KEP_BEFORE))))
        rows.append(("nibabel load + save",
                     timed(fresh(command([sys.executable, "nb.py", "big.nii", "nb.nii"], d), "nb.nii"))))
        rows.append(("cat     copy", timed(fresh(command("cat big.nii > cat.nii", d), "cat.nii"))))
        print(f"file: {SHAPE[0]}x{SHAPE[1]}x{SHAPE[2]}x{SHAPE[3]} float32, {size / 1e6:.1f} MB; best of {REPEATS}")
        print("                       wall s    cpu s   peak MB")
        for name, (wall, cpu, peak) in rows:
            print(f"{name:22s} {wall:7.3f}  {cpu:7.3f}  {peak:8.1f}")
        kep, others = rows[0][1], dict(rows)
        nibabel, cat = others["nibabel load + save"], others["cat     copy"]
        print(f"nibabel / kep: {nibabel[0] / kep[0]:5.2f} (wall)  {nibabel[1] / kep[1]:5.2f} (cpu)")
        print(f"kep / cat:     {kep[0] / cat[0]:5.2f} (wall)  {kep[1] / cat[1]:5.2f} (cpu)")
        if KEP_BEFORE:
            before = others["earlier kep"]
            print(f"earlier kep / kep: {before[0] / kep[0]:5.2f} (wall)  {before[1] / kep[1]:5.2f} (cpu)  "
                  f"peak {before[2]:.0f} MB -> {kep[2]:.0f} MB")


if __name__ == "__main__":
    main()
