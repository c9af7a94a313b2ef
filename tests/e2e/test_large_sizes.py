"""Sample counts beyond 32 bits: a message before any allocation; the stacks held stay."""
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


def xdisplay_header(x, y, z, t):
    return {"e.bfloat": bytes(64), "e.hdr": f"x {x}\ny {y}\nz {z}\nt {t}\n"}


@pytest.mark.parametrize("files,name,message", [
    # x * y exactly 2^32 (0 in 32 bits), just above the int range, one voxel of too many volumes, and a volume above
    # half the int range
    (xdisplay_header(65536, 65536, 1, 1), "e.bfloat", "65536 x 65536 x 1 x 1 in file 'e.bfloat' hold more samples"),
    (xdisplay_header(46341, 46341, 1, 1), "e.bfloat", "46341 x 46341 x 1 x 1 in file 'e.bfloat' hold more samples"),
    (xdisplay_header(1, 1, 1, 2147483647), "e.bfloat", "1 x 1 x 1 x 2147483647 in file 'e.bfloat' hold more samples"),
    (xdisplay_header(2048, 2048, 256, 1), "e.bfloat", "2048 x 2048 x 256 x 1 in file 'e.bfloat' hold more samples"),
    ({"fs.bhdr": "cols: 65536\nrows: 65536\nnslices: 2\nn_time_points: 3\n", "fs_000.hdr": "65536 65536 3 1\n",
      "fs_000.bshort": bytes(16)}, "fs_", "65536 x 65536 x 2 x 3 in file 'fs_' hold more samples"),
    (xdisplay_header(1, 1, 1, 500001), "e.bfloat", "Error: Too many volumes (500001) to read; increase MAX_NSET.\n"),
])
def test_headers_with_overflowing_counts(kep, files, name, message):
    for file, content in files.items():
        kep.path(file).write_bytes(content.encode() if isinstance(content, str) else content)
    assert message in held_stack_survives(kep, f"read {name} s").stdout


@pytest.mark.parametrize("command,sizes", [
    ("pad-x-to 2147483647 s", "2147483647 x 2 x 2 x 1"),
    ("pad-y-to 1073741824 s", "2 x 1073741824 x 2 x 1"),
    ("pad-to 40000 s", "40000 x 40000 x 2 x 1"),
])
def test_padding_beyond_the_int_range(kep, command, sizes):
    assert f"Error: The stack s cannot hold {sizes} samples.\n" in held_stack_survives(kep, command).stderr


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
