#!/usr/bin/python3
"""Times kep's add-constant, multiply (by one volume), average, pad-xy and clip-x on a 128x128x32x100
complex stack against numpy doing the same on the same array in the same run. Prints the best times
and the ratios numpy / kep (above 1: kep is faster). Times are process CPU times (the machine may be
shared), best of REPEATS."""
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np

BENCH = os.environ.get("BENCH_OPS", str(Path(__file__).resolve().parents[1] / "build" / "bench_ops"))
SHAPE = (100, 32, 128, 128)  # t, z, y, x
REPEATS = int(os.environ.get("REPEATS", "5"))


def best(setup, fn):
    times = []
    for _ in range(REPEATS):
        state = setup()
        start = time.process_time()
        fn(state)
        times.append(time.process_time() - start)
        del state
    return min(times)


def main():
    rng = np.random.default_rng(0)
    data = (rng.standard_normal(SHAPE) + 1j * rng.standard_normal(SHAPE)).astype(np.complex64)
    nt, nz, ny, nx = SHAPE
    with tempfile.TemporaryDirectory() as d:
        raw = Path(d) / "samples.raw"
        data.tofile(raw)
        proc = subprocess.run([BENCH, str(raw), str(nx), str(ny), str(nz), str(nt), str(REPEATS)],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=True, text=True)
    kep = {}
    for line in proc.stderr.splitlines():
        command, seconds = line.rsplit(" ", 1)
        kep[command.split()[0]] = float(seconds)

    reference = data[0].copy()
    factor = np.float32(nt * 4)  # pad-xy: nt times the voxel ratio

    def add(x):
        x.view(np.float32).__iadd__(np.float32(5))  # kep adds the constant to both parts

    def multiply(x):
        x *= reference

    def average(x):
        x.mean(axis=0)

    def pad(x):
        out = np.zeros((nt, nz, 2 * ny, 2 * nx), np.complex64)
        np.multiply(x, factor, out=out[:, :, ny // 2:ny // 2 + ny, nx // 2:nx // 2 + nx])

    def clip(x):
        x[..., nx // 4:nx // 4 + nx // 2].copy()

    numpy_times = {
        "add-constant": best(data.copy, add),
        "multiply": best(data.copy, multiply),
        "average": best(lambda: data, average),
        "pad-xy": best(lambda: data, pad),
        "clip-x": best(lambda: data, clip),
    }
    print(f"stack {nx}x{ny}x{nz}x{nt} complex, best of {REPEATS}")
    print(f"{'operation':14s} {'kep s':>9s} {'numpy s':>9s} {'numpy/kep':>10s}")
    for name, t_np in numpy_times.items():
        print(f"{name:14s} {kep[name]:9.4f} {t_np:9.4f} {t_np / kep[name]:10.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
