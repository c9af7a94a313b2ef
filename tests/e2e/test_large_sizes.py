"""Sizes whose sample counts overflow 32-bit arithmetic: a clear message before
anything is allocated, and the stacks already held stay as they were."""
import numpy as np
import pytest

from conftest import stack_line, write_xdisplay


def held_stack_survives(kep, commands, before="read good.bfloat s\n"):
    """Runs `commands` after reading a small stack s; s must be unchanged."""
    write_xdisplay(kep.dir, "good.bfloat", np.arange(8, dtype=np.float32).reshape((2, 2, 2, 1)), np.float32)
    r = kep.stdin(f"{before}{commands}\nshow-stacks\nquit\n")
    assert "Fatal" not in r.stderr, r
    assert stack_line(r.stdout, "s")[:4] == ["2", "2", "2", "1"], r
    return r


@pytest.mark.parametrize("x,y,z,t", [
    (65536, 65536, 1, 1),        # x * y is exactly 2^32: wraps to 0 in 32 bits
    (46341, 46341, 1, 1),        # x * y just above the int range
    (1, 1, 1, 2147483647),       # one voxel, too many volumes
    (2048, 2048, 256, 1),        # a volume above half the int range
])
def test_xdisplay_headers_with_overflowing_counts(kep, x, y, z, t):
    (kep.dir / "e.bfloat").write_bytes(bytes(64))
    (kep.dir / "e.hdr").write_text(f"x {x}\ny {y}\nz {z}\nt {t}\n")
    r = held_stack_survives(kep, "read e.bfloat s")
    assert (f"Error: the dimensions {x} x {y} x {z} x {t} in file 'e.bfloat' hold more samples than kep "
            "can store.\n") in r.stdout


def test_freesurfer_header_with_overflowing_counts(kep):
    (kep.dir / "fs.bhdr").write_text("cols: 65536\nrows: 65536\nnslices: 2\nn_time_points: 3\n")
    (kep.dir / "fs_000.hdr").write_text("65536 65536 3 1\n")
    (kep.dir / "fs_000.bshort").write_bytes(bytes(16))
    r = held_stack_survives(kep, "read fs_ s")
    assert ("Error: the dimensions 65536 x 65536 x 2 x 3 in file 'fs_' hold more samples than kep can store.\n"
            in r.stdout)


def test_volume_count_beyond_the_subset_limit(kep):
    write_xdisplay(kep.dir, "long.bfloat", np.zeros((1, 1, 1, 500001), np.float32), np.float32)
    r = held_stack_survives(kep, "read long.bfloat s")
    assert "Error: Too many volumes (500001) to read; increase MAX_NSET.\n" in r.stdout


@pytest.mark.parametrize("command,sizes", [
    ("pad-x-to 2147483647 s", "2147483647 x 2 x 2 x 1"),
    ("pad-y-to 1073741824 s", "2 x 1073741824 x 2 x 1"),
    ("pad-to 40000 s", "40000 x 40000 x 2 x 1"),
])
def test_padding_beyond_the_int_range(kep, command, sizes):
    r = held_stack_survives(kep, command)
    assert f"Error: The stack s cannot hold {sizes} samples.\n" in r.stderr


def test_histogram_with_too_many_bins(kep):
    r = held_stack_survives(kep, "set histogram 0 1e12 1")
    assert "Error: A histogram of 1e+12 bins is too large; use at most 1e+08 bins.\n" in r.stderr
    r = kep.stdin("set histogram 0 10 1\nset histogram 0 1e12 1e-3\nshow histogram\nquit\n")
    assert "\thistogram       0 10 1 (10 bins)\n" in r.stdout  # the earlier histogram is kept


def test_ar_model_on_too_many_images(kep):
    # 40000 one-voxel images: the AR matrices would hold 40000^2 samples.
    write_xdisplay(kep.dir, "run.bfloat", np.ones((1, 1, 1, 40000), np.float32), np.float32)
    (kep.dir / "e.glm").write_text("1 40000\n\n1\n2 6\n20 26 2\n")
    (kep.dir / "c.txt").write_text("AR 1\nruns:\nrun.bfloat e.glm\n")
    r = kep.stdin("read-GLM c.txt\nshow-stacks\nquit\n")
    assert "Error: an AR model of order 1 cannot be used with 40000 images.\n" in r.stdout, r
    assert stack_line(r.stdout, "glm")[:4] == ["1", "1", "1", "40000"], r


@pytest.mark.parametrize("events,runs,message", [
    ("1 1e12\n\n1\n2 6\n", 1,
     "Error: run 1 of the GLM file e.glm has 999999995904 images; the runs may hold 1 to 500000 images in all.\n"),
    ("1 300000\n\n1\n2 6\n", 2,  # each run fits, the two together do not
     "Error: run 2 of the GLM file e.glm has 300000 images; the runs may hold 1 to 500000 images in all.\n"),
    ("2 40\n\n1\n2 6\n", 51, "Error: more than 50 runs are listed in the file c.txt.\n"),
])
def test_glm_control_sizes_beyond_the_limits(kep, events, runs, message):
    (kep.dir / "e.glm").write_text(events)
    (kep.dir / "c.txt").write_text("runs:\n" + "".join(f"r{i}.bfloat e.glm\n" for i in range(runs)))
    r = held_stack_survives(kep, "read-GLM c.txt")
    assert message in r.stdout
    assert "Error: Error reading the GLM control file c.txt\n" in r.stderr
