"""Read loops and the reorder-interleaved-slices macro."""
import numpy as np

from conftest import write_xdisplay


def test_read_loop_with_a_scattered_subset_and_io_increment(kep):
    write_xdisplay(kep.dir, "g.bfloat", np.zeros((2, 2, 2, 10)))
    r = kep.stdin("read-loop g.bfloat>0,2,4 s\nend-loop\nset io-increment 1\nread-loop g.bfloat>0-2 t\nend-loop\n"
                  "show-stacks t\nquit\n")
    assert "macro>> read g.bfloat>0,2,4 s\n" in r.stdout
    # the command is written without the increment, which the read adds again
    assert "macro>> read g.bfloat>0-2 t\n" in r.stdout
    assert "t\r\t\t2\r\t\t\t2\r\t\t\t\t2\r\t\t\t\t\t3\r" in r.stdout


def test_mode_inside_a_read_loop_runs_at_once(kep):
    # The loop's body, with its end-loop, comes from the command file.
    write_xdisplay(kep.dir, "m.bfloat", np.zeros((2, 2, 1, 3)))
    (kep.dir / "body.com").write_text("show-stacks s\nend-loop\n")
    r = kep.stdin("read-loop m.bfloat s\nmode body.com\nquit\n")
    assert "macro>> show-stacks s\n" in r.stdout
    assert "macro>> mode" not in r.stdout


def test_end_loop_without_a_loop_does_nothing(kep):
    r = kep.stdin("end-loop\nquit\n")
    assert r.stdout == "kep > kep > "
    assert r.stderr == ""


def test_reorder_interleaved_slices(kep):
    data = np.zeros((1, 1, 4, 1))
    data[0, 0, :, 0] = [10, 11, 12, 13]
    write_xdisplay(kep.dir, "a.bfloat", data)
    r = kep.stdin("read a.bfloat a\nreorder-interleaved-slices 1 a\nshow slice-order\n"
                  "reorder-interleaved-slices 2 a\nquit\n")
    assert "macro>> set slice-order  1 3 0 2 \n" in r.stdout
    assert "4 values were read for the slice order.\n" in r.stdout
    assert "macro>> reorder-slices   a\n" in r.stdout
    assert "\tslice-order     1 3 0 2 \n" in r.stdout
    assert ("Error: `reorder-interleaved-slices [start] [volume list]\n"
            "where istart (2) must be either 0 or 1.\n") in r.stdout
