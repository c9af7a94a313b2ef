#!/usr/bin/python3
"""Times kep's transform + inverse-transform and smooth-3d 4 on a 256x256x32x10 complex stack
against numpy doing the same centred transforms (and the Gaussian multiply in k-space) on the
same array in the same run. Prints the times and the ratios numpy / kep."""
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np

KEP = os.environ.get("KEP", str(Path(__file__).resolve().parents[1] / "build" / "kep"))
SHAPE = (10, 32, 256, 256)  # t, z, y, x
REPEATS = int(os.environ.get("REPEATS", "3"))
THREADS = int(os.environ.get("KEP_THREADS", "1"))  # kep's `set threads`


def run_kep(workdir, commands):
    threads = f"set threads {THREADS}\n" if THREADS > 1 else ""
    script = threads + "set complex-output on\nread in.bfloat a\n" + commands
    (workdir / "run.com").write_text(script)
    start = time.perf_counter()
    subprocess.run([KEP, "run.com"], cwd=workdir, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   check=False)
    return time.perf_counter() - start


def best(fn):
    return min(fn() for _ in range(REPEATS))


def centred(a, axes, direction):
    a = np.fft.ifftshift(a, axes=axes)
    if direction < 0:
        a = np.fft.fftn(a, axes=axes) / np.prod([a.shape[i] for i in axes])
    else:
        a = np.fft.ifftn(a, axes=axes) * np.prod([a.shape[i] for i in axes])
    return np.fft.fftshift(a, axes=axes).astype(np.complex64)


def gaussian(shape, fwhm):
    c = 0.1404824543408127 / fwhm ** 2
    w = np.ones(shape[1:], dtype=np.float32)
    for axis in (1, 2, 3):
        n = shape[axis]
        k = np.arange(n) - n // 2 + 0.5
        g = np.exp(-k ** 2 / 2 / (n * n * c)).astype(np.float32)
        w = w * g.reshape([n if a == axis else 1 for a in (1, 2, 3)])
    return w


def main():
    rng = np.random.default_rng(0)
    data = (rng.standard_normal(SHAPE) + 1j * rng.standard_normal(SHAPE)).astype(np.complex64)
    with tempfile.TemporaryDirectory() as d:
        workdir = Path(d)
        pairs = np.empty(SHAPE + (2,), dtype="<f4")
        pairs[..., 0], pairs[..., 1] = data.real, data.imag
        pairs.tofile(workdir / "in.bfloat")
        (workdir / "in.hdr").write_text(f"x {SHAPE[3]}\ny {SHAPE[2]}\nz {SHAPE[1]}\nt {SHAPE[0]}\n"
                                        "byte-order 1\ndata-type complex\n")
        del pairs
        read_only = best(lambda: run_kep(workdir, ""))
        kep_ft = best(lambda: run_kep(workdir, "transform a\ninverse-transform a\n")) - read_only
        kep_smooth = best(lambda: run_kep(workdir, "smooth-3d 4 a\n")) - read_only

    def numpy_ft():
        start = time.perf_counter()
        centred(centred(data, (2, 3), -1), (2, 3), 1)
        return time.perf_counter() - start

    weights = gaussian(SHAPE, 4.0)

    def numpy_smooth():
        start = time.perf_counter()
        k = centred(data, (1, 2, 3), 1)
        k *= weights
        centred(k, (1, 2, 3), -1)
        return time.perf_counter() - start

    np_ft = best(numpy_ft)
    np_smooth = best(numpy_smooth)
    print(f"stack {SHAPE[3]}x{SHAPE[2]}x{SHAPE[1]}x{SHAPE[0]} complex, best of {REPEATS}; "
          f"kep times exclude reading the file ({read_only:.3f} s); kep threads {THREADS}")
    print(f"transform + inverse-transform: kep {kep_ft:.3f} s, numpy {np_ft:.3f} s, "
          f"numpy/kep {np_ft / kep_ft:.2f}")
    print(f"smooth-3d 4:                   kep {kep_smooth:.3f} s, numpy {np_smooth:.3f} s, "
          f"numpy/kep {np_smooth / kep_smooth:.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
