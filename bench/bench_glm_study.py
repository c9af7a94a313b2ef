"""The GLM of a whole study, from run files to written effect maps: kep beside nipy.

Both sides do the same job on the same synthetic study (examples/make_study.py): load the
two runs, build the design (three events, a quadratic drift per run), fit every voxel of the
head, write the three effect maps as a NIfTI file. kep runs a command file (read-GLM,
GLM-fit-events, write-float); the peer is a Python script (nibabel to load and save, nipy's
design matrix and GeneralLinearModel to fit). Each case runs without a noise model (nipy
'ols') and with an AR(1) model ("AR 1" in the control file, nipy 'ar1').

Every job runs as its own process; wall time, processor time (user + system) and peak
resident memory come from that process alone (os.wait4). kep and the peer alternate within
each repeat, so both meet the same machine load; the best of the repeats is reported.

With --peer-threads N, the peer's numerical libraries (OpenBLAS, OpenMP) are held to N threads,
so that both sides can be compared on one thread each. With --threads N, kep also runs with `set threads N`; the fit phase (the whole job less a
job that only runs read-GLM) is then compared between 1 and N threads. With KEP_BEFORE set to
another kep binary (an earlier build), that binary runs the same jobs in the same repeats, so
that its ratios to the peer and to this build come from one run.

Usage: bench_glm_study.py [--whole-brain] [--repeats N] [--keep DIR] [--no-peer] [--threads N]
                          [--peer-threads N]
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

HERE = Path(__file__).resolve().parent
MAKE_STUDY = HERE.parent / "examples" / "make_study.py"
KEP = os.environ.get("KEP", str(HERE.parent / "build" / "kep"))
KEP_BEFORE = os.environ.get("KEP_BEFORE")
PYTHON = "/usr/bin/python3"

# The peer's job. The runs are concatenated as in kep's model: one design with the event
# columns over both runs and a separate drift (constant, linear, quadratic) per run.
PEER = r'''
import sys
import numpy as np
import nibabel as nib
from nipy.modalities.fmri.design_matrix import make_dmtx
from nipy.modalities.fmri.experimental_paradigm import BlockParadigm
from nipy.modalities.fmri.glm import GeneralLinearModel

model, out, runs = sys.argv[1], sys.argv[2], sys.argv[3:]

def paradigm(event_file):
    """Events of one run from its event file: 'square' blocks and 'gamma' events."""
    ids, onsets, durations = [], [], []
    lines = [l.split() for l in open(event_file) if l.split()]
    event = None
    for words in lines[1:]:
        if len(words) >= 2 and words[1] in ("square", "gamma"):
            event, kind = words[0], words[1]
            continue
        if event is None:
            continue
        on = float(words[0])
        ids.append(event)
        onsets.append(on)
        durations.append(float(words[1]) - on if kind == "square" else 1.0)
    return BlockParadigm(con_id=ids, onset=onsets, duration=durations)

series, designs, first = [], [], None
for image, events in zip(runs[0::2], runs[1::2]):
    img = nib.load(image)
    first = first or img
    data = img.get_fdata(dtype=np.float32)
    tr = float(img.header["pixdim"][4])
    series.append(data.reshape(-1, data.shape[3]).T)
    frames = np.arange(data.shape[3]) * tr
    designs.append(make_dmtx(frames, paradigm(events), hrf_model="canonical",
                             drift_model="polynomial", drift_order=2))
names = [n for n in designs[0].names if not (n.startswith("drift") or n == "constant")]
ndrift = designs[0].matrix.shape[1] - len(names)
nt = sum(d.matrix.shape[0] for d in designs)
X = np.zeros((nt, len(names) + ndrift * len(designs)))
row = 0
for r, d in enumerate(designs):
    n = d.matrix.shape[0]
    X[row:row + n, :len(names)] = d.matrix[:, :len(names)]
    X[row:row + n, len(names) + r * ndrift:len(names) + (r + 1) * ndrift] = d.matrix[:, len(names):]
    row += n
Y = np.concatenate(series, axis=0)
del series
head = Y.any(axis=0)          # the voxels with a signal; kep skips all-zero series too
glm = GeneralLinearModel(X)
glm.fit(Y[:, head].astype(np.float64), model=model)
beta = np.zeros((len(names), Y.shape[1]), dtype=np.float32)
beta[:, head] = glm.get_beta()[:len(names)]
shape = first.shape[:3]
maps = np.stack([b.reshape(shape) for b in beta], axis=3)
nib.save(nib.Nifti1Image(maps, first.affine), out)
'''


def run_job(args, cwd, env=None):
    """Runs one job; returns wall s, CPU s (user + system), user s, system s and peak resident bytes."""
    start = time.perf_counter()
    proc = subprocess.Popen(args, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                            stdin=subprocess.DEVNULL, env=env)
    _, status, usage = os.wait4(proc.pid, 0)
    wall = time.perf_counter() - start
    proc.returncode = os.waitstatus_to_exitcode(status)
    err = proc.stderr.read().decode(errors="replace")
    proc.stderr.close()
    # kep ends every command file with status 1 (its quit status); the output file is the check.
    if proc.returncode not in (0, 1) or (proc.returncode == 1 and args[0] not in (KEP, KEP_BEFORE)):
        sys.exit(f"job {' '.join(map(str, args))} failed ({proc.returncode}):\n{err}")
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_utime, usage.ru_stime, usage.ru_maxrss * 1024


def make_study(where, size, ar, threads):
    nx, ny, nz, images = size
    subprocess.run([PYTHON, str(MAKE_STUDY), str(where), str(nx), str(ny), str(nz), str(images)],
                   check=True, stdout=subprocess.DEVNULL)
    control = (where / "study.glm").read_text()
    # The same study with the AR(1) model for the second case.
    (where / "study_ar.glm").write_text(control.replace("runs:\n", "AR 1\nruns:\n"))
    for name, file in (("ols", "study.glm"), ("ar1", "study_ar.glm")):
        job = f"read-GLM {file}\nGLM-fit-events effects\nwrite-float kep_{name}.nii effects\n"
        (where / f"{name}.com").write_text(job)
        (where / f"{name}_threads.com").write_text(f"set threads {threads}\n" + job)
        (where / f"{name}_read.com").write_text(f"read-GLM {file}\n")
    (where / "peer.py").write_text(PEER)
    runs = [l.split() for l in control.split("runs:\n", 1)[1].splitlines() if l.split()]
    return [w for pair in runs for w in pair[:2]]


def check_maps(where, name, shape):
    """Both sides must have written the three effect maps; returns their correlation in the head."""
    kep = np.asanyarray(nib.load(where / f"kep_{name}.nii").dataobj)
    if kep.shape != shape + (3,):
        sys.exit(f"kep wrote effect maps of shape {kep.shape}, not {shape + (3,)}")
    peer_file = where / f"peer_{name}.nii"
    if not peer_file.exists():
        return None
    peer = np.asanyarray(nib.load(peer_file).dataobj)
    head = np.any(kep != 0, axis=3)
    return [float(np.corrcoef(kep[..., e][head], peer[..., e][head])[0, 1]) for e in range(3)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--whole-brain", action="store_true",
                        help="104x104x66 voxels, two runs of 195 images (390 in the stack glm)")
    parser.add_argument("--repeats", type=int, default=None, help="runs of each job (best is kept)")
    parser.add_argument("--keep", help="work in this directory and keep it")
    parser.add_argument("--no-peer", action="store_true", help="time kep alone")
    parser.add_argument("--threads", type=int, default=0, help="also time kep with this many threads")
    parser.add_argument("--peer-threads", type=int, default=0,
                        help="hold the peer's OpenBLAS and OpenMP to this many threads")
    opts = parser.parse_args()
    peer_env = None
    if opts.peer_threads:
        peer_env = dict(os.environ, **{v: str(opts.peer_threads) for v in
                                       ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS")})
    size = (104, 104, 66, 195) if opts.whole_brain else (64, 64, 32, 150)
    repeats = opts.repeats or (1 if opts.whole_brain else 3)
    if opts.keep:
        Path(opts.keep).mkdir(parents=True, exist_ok=True)
        context = None
        where = Path(opts.keep)
    else:
        context = tempfile.TemporaryDirectory()
        where = Path(context.name)
    runs = make_study(where, size, 1, opts.threads)
    nx, ny, nz, images = size
    nt = 2 * images
    stack_bytes = nx * ny * nz * nt * 8
    data_bytes = nx * ny * nz * nt * 4  # the runs as float32
    voxels_in_head = None
    load_before = os.getloadavg()
    results = {}
    for name in ("ols", "ar1"):
        best, walls = {}, {}
        for _ in range(repeats):
            jobs = [("kep", [KEP, f"{name}.com"])]
            if opts.threads:
                jobs += [(f"kep-t{opts.threads}", [KEP, f"{name}_threads.com"]), ("read", [KEP, f"{name}_read.com"])]
            if KEP_BEFORE:
                jobs.append(("before", [KEP_BEFORE, f"{name}.com"]))
            if not opts.no_peer:
                jobs.append(("nipy", [PYTHON, "peer.py", name, f"peer_{name}.nii"] + runs))
            for who, args in jobs:
                figures = run_job(args, where, peer_env if who == "nipy" else None)
                # The repeat of least processor time, with its own wall, user and system times.
                old = best.get(who)
                if old is None or figures[1] < old[1]:
                    best[who] = figures
                walls[who] = min(walls.get(who, figures[0]), figures[0])
        for who in best:
            best[who] = (walls[who],) + best[who][1:]
        results[name] = (best, check_maps(where, name, (nx, ny, nz)))
    load_after = os.getloadavg()
    if voxels_in_head is None:
        voxels_in_head = int(np.count_nonzero(np.asanyarray(nib.load(where / "kep_ols.nii").dataobj)[..., 0]))

    print(f"study: {nx}x{ny}x{nz} voxels ({voxels_in_head} in the head), 2 runs of {images} images, TR 2 s, "
          f"3 events; best of {repeats}")
    print(f"runs' float32 data: {stack_bytes / 2e6:.1f} MB ({nx}*{ny}*{nz}*{nt} samples of 4 bytes; "
          f"kep's stack glm holds them as such)")
    print("wall: best of the repeats; cpu: the repeat of least processor time")
    if opts.peer_threads:
        print(f"the peer's OpenBLAS and OpenMP held to {opts.peer_threads} thread(s)")
    print(f"load average before {load_before[0]:.2f}, after {load_after[0]:.2f} (2 cores: "
          f"{os.cpu_count()} visible)")
    print()
    print("model  job      wall s    cpu s  (user + system)   peak MB  peak/float32 data")
    for name, (best, _) in results.items():
        for who, (wall, cpu, user, system, rss) in best.items():
            print(f"{name:5s}  {who:7s} {wall:7.2f}  {cpu:7.2f}  ({user:6.2f} + {system:5.2f})  {rss / 1e6:8.1f}"
                  f"  {rss / data_bytes:8.2f}")
    print()
    for name, (best, agreement) in results.items():
        if "nipy" in best:
            k, p = best["kep"], best["nipy"]
            print(f"{name}: nipy / kep = {p[0] / k[0]:5.2f} (wall)  {p[1] / k[1]:5.2f} (cpu)")
            if "before" in best:
                b = best["before"]
                print(f"{name}: nipy / earlier kep = {p[0] / b[0]:5.2f} (wall)  {p[1] / b[1]:5.2f} (cpu)")
        if "before" in best:
            k, b = best["kep"], best["before"]
            print(f"{name}: earlier kep / kep = {b[0] / k[0]:5.2f} (wall)  {b[1] / k[1]:5.2f} (cpu)  "
                  f"peak {b[4] / 1e6:.0f} MB -> {k[4] / 1e6:.0f} MB")
        if opts.threads:
            k, t, r = best["kep"], best[f"kep-t{opts.threads}"], best["read"]
            one, many = k[0] - r[0], t[0] - r[0]
            print(f"{name}: fit phase (job less read-GLM) {one:.2f} s with 1 thread, {many:.2f} s with "
                  f"{opts.threads}: {one / many:4.2f} times faster")
        if agreement:
            print(f"{name}: correlation of kep's and nipy's effect maps in the head: "
                  + "  ".join(f"event {e + 1} {c:.3f}" for e, c in enumerate(agreement)))
    if context:
        context.cleanup()


if __name__ == "__main__":
    main()
