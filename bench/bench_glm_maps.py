"""Cost of the statistic maps beside the effect maps, and of a masked fit, in one kep session.

The study is examples/make_study.py's (two runs, three events, conditions 1 2 3 1-2: four
conditions). One kep process reads it once (read-GLM), then runs, alternating, GLM-fit-events
and GLM-map-conditions on the same stack "glm" (best of the repeats each, so both meet the
same machine load), then sets a GLM mask of about 4000 voxels inside the head and times both
commands again. Each command is timed from the moment it is sent until kep has printed the
line of a `show` sent after it (output line-buffered), so reading the study is not counted.

Usage: bench_glm_maps.py [--whole-brain] [--repeats N] [--ar]
  default 64x64x32 voxels, 2 runs of 150 images; --whole-brain 104x104x66, 2 runs of 195
  (390 images in "glm"); --ar adds `AR 1 6` to the control file.
"""
import argparse
import os
import subprocess
import tempfile
import time
from pathlib import Path

import nibabel as nib
import numpy as np

HERE = Path(__file__).resolve().parent
MAKE_STUDY = HERE.parent / "examples" / "make_study.py"
KEP = os.environ.get("KEP", str(HERE.parent / "build" / "kep"))
MARK = "io-increment"


class Session:
    def __init__(self, cwd):
        self.proc = subprocess.Popen(["stdbuf", "-oL", KEP], cwd=cwd, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, bufsize=1)

    def cpu(self):
        """Processor time (user + system) of the kep process so far, in seconds."""
        fields = Path(f"/proc/{self.proc.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def run(self, command):
        """(wall, processor) seconds from sending the command until its output has ended; the lines."""
        start, cpu = time.perf_counter(), self.cpu()
        self.proc.stdin.write(f"{command}\nshow {MARK}\n")
        self.proc.stdin.flush()
        lines = []
        while True:
            line = self.proc.stdout.readline()
            if not line:
                raise SystemExit(f"kep ended during {command}:\n" + "".join(lines[-20:]))
            if MARK in line and line.strip().endswith("0"):
                return (time.perf_counter() - start, self.cpu() - cpu), lines
            lines.append(line)

    def close(self):
        self.proc.stdin.write("quit\n")
        self.proc.stdin.close()
        self.proc.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--whole-brain", action="store_true")
    parser.add_argument("--repeats", type=int, default=3)
    parser.add_argument("--ar", action="store_true")
    opts = parser.parse_args()
    nx, ny, nz, images = (104, 104, 66, 195) if opts.whole_brain else (64, 64, 32, 150)
    with tempfile.TemporaryDirectory() as tmp:
        where = Path(tmp)
        subprocess.run(["/usr/bin/python3", str(MAKE_STUDY), str(where), str(nx), str(ny), str(nz), str(images)],
                       check=True, stdout=subprocess.DEVNULL)
        control = where / "study.glm"
        if opts.ar:
            control.write_text("AR 1 6\n" + control.read_text())
        # A ball of about 4000 voxels around the centre of the head (inside it).
        x, y, z = np.meshgrid(np.arange(nx), np.arange(ny), np.arange(nz), indexing="ij")
        r2 = (x - nx / 2) ** 2 + (y - ny / 2) ** 2 + (z - nz / 2) ** 2
        radius2 = np.sort(r2.ravel())[3999]
        mask = (r2 <= radius2).astype(np.float32)
        nib.save(nib.Nifti1Image(mask, np.diag([3.0, 3.0, 4.0, 1.0])), str(where / "mask.nii"))
        kep = Session(where)
        seconds, _ = kep.run("read-GLM study.glm")
        print(f"{nx}x{ny}x{nz} voxels, {2 * images} images in \"glm\"{', AR 1' if opts.ar else ''}; "
              f"read-GLM {seconds[0]:.2f} s; best of {opts.repeats}; load average {os.getloadavg()[0]:.1f}")
        jobs = [("GLM-fit-events", "GLM-fit-events effects"), ("GLM-map-conditions", "GLM-map-conditions maps")]
        best = {}
        for label in ("whole volume", f"mask of {int(mask.sum())} voxels"):
            if label != "whole volume":
                kep.run("read mask.nii mask")
                _, lines = kep.run("set glm-mask mask")
                assert any("The GLM mask is stack mask" in line for line in lines), lines
            for _ in range(opts.repeats):
                for name, command in jobs:
                    seconds, lines = kep.run(command)
                    assert not any("Error" in line for line in lines), lines
                    old = best.get((label, name), (1e9, 1e9))
                    best[label, name] = (min(old[0], seconds[0]), min(old[1], seconds[1]))
        kep.close()
    print("| voxels fitted | time | GLM-fit-events | GLM-map-conditions (4 conditions) | ratio |")
    print("|---|---|---|---|---|")
    for label in dict.fromkeys(k for k, _ in best):
        for i, kind in enumerate(("wall", "CPU")):
            a, b = best[label, "GLM-fit-events"][i], best[label, "GLM-map-conditions"][i]
            ratio = f"{b / a:.2f}" if a > 0 else "-"
            print(f"| {label} | {kind} | {a:.3f} s | {b:.3f} s | {ratio} |")


if __name__ == "__main__":
    main()
