"""Scaled-down load runs: a long command file, a read loop whose memory stays at one chunk."""
import os
import subprocess

import numpy as np

from conftest import KEP, SOURCE, write_xdisplay


def run_measured(kep, command_file, env=None):
    """Runs kep on a command file; returns (stdout, stderr, max RSS in kB)."""
    environment = dict(os.environ, KEP_HOME=str(SOURCE), **(env or {}))
    with open(kep.dir / "out.txt", "wb") as out, open(kep.dir / "err.txt", "wb") as err:
        p = subprocess.Popen([str(KEP), command_file], cwd=kep.dir, stdin=subprocess.DEVNULL, stdout=out,
                             stderr=err, env=environment)
        _, _, usage = os.wait4(p.pid, 0)
        p.returncode = 0
    return (kep.dir / "out.txt").read_text(), (kep.dir / "err.txt").read_text(), usage.ru_maxrss


def test_long_command_file_runs_every_line(kep):
    write_xdisplay(kep.dir, "a.bfloat", np.zeros((4, 4, 2, 2)), np.float32)
    lines = ["read a.bfloat a"]
    for i in range(10000):
        lines += ["add-constant 1 a>1", "# a comment", "", "multiply-constant 1 a>0"]
    lines += ["write-float out.bfloat a", "quit"]
    (kep.dir / "long.com").write_text("\n".join(lines) + "\n")
    out, err, _ = run_measured(kep, "long.com")
    assert "Error" not in out + err
    values = np.fromfile(kep.dir / "out.bfloat", dtype=np.float32).reshape((2, 32))
    assert (values[0] == 0).all() and (values[1] == 10000).all()


def test_read_loop_memory_stays_at_one_chunk(kep):
    # 200 volumes of 64^3 floats (200 MiB on disk, 400 MiB as complex samples
    # in one stack); the loop holds 20 volumes (40 MiB) at a time, with the
    # next chunk read beside it: about 110 MiB at the most.
    volumes = 200
    (kep.dir / "big.hdr").write_text(f"x 64\ny 64\nz 64\nt {volumes}\nstorage-type float\n")
    with open(kep.dir / "big.bfloat", "wb") as f:
        f.truncate(64 ** 3 * 4 * volumes)
    (kep.dir / "loop.com").write_text("read-loop big.bfloat v\nadd-constant 1 v\nshow-stacks v\nend-loop\nquit\n")
    out, err, rss = run_measured(kep, "loop.com", env={"ASAN_OPTIONS": "detect_leaks=0:quarantine_size_mb=0"})
    assert "Error" not in out + err
    assert out.count("20 volumes of size 64 x 64 x 64 were read and stored in stack v\n") == 10
    assert rss < 256 * 1024, f"max RSS {rss} kB"
