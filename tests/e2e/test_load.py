"""Scaled-down load runs: a long command file, a read loop whose memory stays at one chunk."""
import numpy as np

from conftest import write_xdisplay


def test_long_command_file_runs_every_line(kep):
    write_xdisplay(kep.dir, "a.bfloat", np.zeros((4, 4, 2, 2)), np.float32)
    lines = ["read a.bfloat a"]
    for i in range(10000):
        lines += ["add-constant 1 a>1", "# a comment", "", "multiply-constant 1 a>0"]
    r = kep.script("\n".join(lines + ["write-float out.bfloat a", "quit"]) + "\n")
    assert "Error" not in r.stdout + r.stderr
    values = np.fromfile(kep.dir / "out.bfloat", dtype=np.float32).reshape((2, 32))
    assert (values[0] == 0).all() and (values[1] == 10000).all()


def test_read_loop_memory_stays_at_one_chunk(kep):
    # 200 volumes of 64^3 real samples (200 MiB in one stack); the loop holds 20 volumes (20 MiB) at a time, with the
    # next chunk read beside it: well under the 128 MiB allowed.
    volumes = 200
    (kep.dir / "big.hdr").write_text(f"x 64\ny 64\nz 64\nt {volumes}\nstorage-type float\n")
    with open(kep.dir / "big.bfloat", "wb") as f:
        f.truncate(64 ** 3 * 4 * volumes)
    r, peak = kep.peak_memory("read-loop big.bfloat v\nadd-constant 1 v\nshow-stacks v\nend-loop\nquit\n",
                              env={"ASAN_OPTIONS": "detect_leaks=0:quarantine_size_mb=0"})
    assert "Error" not in r.stdout + r.stderr
    assert r.stdout.count("20 volumes of size 64 x 64 x 64 were read and stored in stack v\n") == 10
    assert peak < 128 << 20, f"peak {peak >> 10} kB"
