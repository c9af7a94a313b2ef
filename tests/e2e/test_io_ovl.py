"""The overlay through its commands: OVL files, logic, bitmaps and mirroring."""
import numpy as np
import pytest

from conftest import read_xdisplay, write_xdisplay


SYNTAX = ("Error: The syntax in an overlay file can be one of the following:\n"
          "1)  x y z         (voxel indices), OR\n"
          "2)  x y z weight  (for variable weight in range 0:1)\n")


def overlay_lines(kep, commands):
    """Runs commands, then writes the overlay; returns (result, lines of the written file)."""
    r = kep.stdin(commands + "\nwrite-overlay final.ovl\nquit\n")
    text = (kep.dir / "final.ovl").read_text() if (kep.dir / "final.ovl").exists() else ""
    return r, text.splitlines()


def test_weights_default_to_one_and_comments_are_skipped(kep):
    (kep.dir / "a.ovl").write_text("3 4 5\n# a comment\n\n1 2 3 0.5  # half\n")
    r, lines = overlay_lines(kep, "set overlay-logic and\nread a.ovl")  # with no overlay yet, as replace
    assert "2 overlay pixels read from file.\n" in r.stdout
    assert "2 voxels were included in the overlay file.\n" in r.stdout
    assert lines == ["3 4 5 1", "1 2 3 0.5"]


@pytest.mark.parametrize("line,message", [
    ("3 4 5 1.5", "Error: use weight values <= 1. in overlays.\n"),
    ("3 4 5 -0.2", "Error: use weight values <= 1. in overlays.\n"),
    ("3 4 5 nan", "Error: use weight values <= 1. in overlays.\n"),
    ("3 4", SYNTAX),
    ("x y z", SYNTAX),
])
def test_a_bad_line_fails_the_whole_file(kep, line, message):
    (kep.dir / "good.ovl").write_text("1 1 1 0.25\n")
    (kep.dir / "bad.ovl").write_text(f"0 0 0\n{line}\n")
    r, lines = overlay_lines(kep, "read good.ovl\nread bad.ovl")
    assert message in r.stdout
    assert lines == ["1 1 1 0.25"]


def combined(logic, current, new):
    """The overlay after reading `new` over `current` (lists of (voxel, weight)) with `logic`."""
    shared = dict(new)
    if logic == "replace":
        return new
    if logic == "or":
        return current + [(v, w) for v, w in new if v not in dict(current)]
    if logic == "and":
        return [(v, w * shared[v]) for v, w in current if v in shared]
    return [(v, w) for v, w in current if v not in shared]


@pytest.mark.parametrize("logic", ["replace", "or", "and", "not"])
@pytest.mark.parametrize("shared_first", [False, True])
def test_overlay_logic(kep, logic, shared_first):
    current = [("1 1 1", 0.4), ("2 2 2", 0.4)][::-1 if shared_first else 1]
    new = [("2 2 2", 0.5), ("5 5 5", 1.0)]
    (kep.dir / "cur.ovl").write_text("".join(f"{v} {w}\n" for v, w in current))
    (kep.dir / "new.ovl").write_text("2 2 2 0.5\n5 5 5\n")
    r, lines = overlay_lines(kep, f"read cur.ovl\nset overlay-logic {logic}\nread new.ovl")
    expected = combined(logic, current, new)
    assert [line.split()[:3] for line in lines] == [v.split() for v, _ in expected]
    np.testing.assert_allclose([float(line.split()[3]) for line in lines], [w for _, w in expected], rtol=1e-6)
    assert f"{len(expected)} overlay pixels read from file.\n" in r.stdout


def test_difference_with_itself_empties_the_overlay(kep):
    (kep.dir / "a.ovl").write_text("1 1 1\n2 2 2 0.3\n")
    r, lines = overlay_lines(kep, "read a.ovl\nset overlay-logic not\nread a.ovl")
    assert "0 overlay pixels read from file.\n" in r.stdout
    assert lines == []
    assert "Warning: The OVL is not active or is void, but the file was created anyway.\n" in r.stderr


def test_delete_and_missing_files(kep):
    (kep.dir / "a.ovl").write_text("1 1 1\n")
    (kep.dir / "dir.ovl").mkdir()
    r, lines = overlay_lines(kep, "read a.ovl\nread nothere.ovl\nread dir.ovl\ndelete-overlay")
    assert r.stderr.count("Error: I was unable to open the OVL file.\n") == 2
    assert lines == []
    r = kep.stdin("write-overlay\nwrite-overlay nodir/x.ovl\nquit\n")
    assert "Error: A file name is a mandatory argument here.\n" in r.stderr
    assert "Error: I cannot open the output OVL file.\n" in r.stderr


def test_mirror_in_x(kep):
    write_xdisplay(kep.dir, "g.bfloat", np.ones((2, 2, 1, 1)), np.float32)
    (kep.dir / "a.ovl").write_text("0 1 2 0.5\n63 4 5\n")
    r, lines = overlay_lines(kep, "read g.bfloat\nread a.ovl\nmirror-overlay-x 64")
    assert "in mirror function\n4 overlay pixels now in overlay.\n" in r.stdout
    assert lines == ["0 1 2 0.5", "63 4 5 1", "63 1 2 0.5", "0 4 5 1"]
    (kep.dir / "b.ovl").write_text("70 1 1\n")
    r, lines = overlay_lines(kep, "read g.bfloat\nread b.ovl\nmirror-overlay-x 64")
    assert "Error: voxel index (-7) < 0 during mirror; check x dimension.\n" in r.stdout
    assert lines == ["70 1 1 1"]
    r = kep.stdin("read g.bfloat\nmirror-overlay-x 64\nquit\n")
    assert "in mirror function\nError: no overlay exists in memory.\n" in r.stdout


def test_overlay_from_bitmap_rounds_and_clips_and_needs_one_volume(kep):
    values = np.float32([0.104, 0.094, 1.7, -0.5, 0.5, 0.0, 0.1049, 0.33333]).reshape((4, 2, 1, 1), order="F")
    write_xdisplay(kep.dir, "bm.bfloat", values, np.float32)
    write_xdisplay(kep.dir, "two.bfloat", np.ones((2, 2, 1, 2)), np.float32)
    r, lines = overlay_lines(kep, "read two.bfloat t\ncreate-overlay-from-bitmap t\n"
                                  "read bm.bfloat b\ncreate-overlay-from-bitmap b")
    assert "Error: only pass a single volume to this function.\n" in r.stdout
    # The warning is all the command prints.
    assert "kep > Warning: use normalized bitmaps (range:0 to 1)\nkep > " in r.stdout
    assert lines == ["0 0 0 0.1", "2 0 0 1", "0 1 0 0.5", "2 1 0 0.1", "3 1 0 0.33"]


def test_bitmap_from_overlay(kep):
    write_xdisplay(kep.dir, "g.bfloat", np.ones((4, 3, 2, 1)), np.float32, ["resolution 2 2 2", "origin 5 5 5"])
    (kep.dir / "a.ovl").write_text("1 2 1 0.25\n3 0 0\n")
    (kep.dir / "far.ovl").write_text("0 0 5\n")
    (kep.dir / "edge.ovl").write_text("0 0 2\n")  # index 24 = the voxel count: let through
    r = kep.stdin("read g.bfloat g\ncreate-bitmap-from-overlay b g\nread a.ovl\ncreate-bitmap-from-overlay bits g\n"
                  "write-float bits.bfloat bits\nread far.ovl\ncreate-bitmap-from-overlay b g\n"
                  "read edge.ovl\ncreate-bitmap-from-overlay e g\nwrite e.bfloat e\nquit\n")
    assert "Error: an overlay is not defined.\n" in r.stdout
    assert "(x,y,z) = (0,0,5), index = 60, total = 24\n" in r.stdout
    assert "Error: The overlay falls outside the volume boundaries.\n" in r.stderr
    values, fields = read_xdisplay(kep.dir, "bits")
    expected = np.zeros((4, 3, 2, 1))
    expected[1, 2, 1, 0] = 0.25
    expected[3, 0, 0, 0] = 1
    np.testing.assert_array_equal(values, expected)
    assert fields["origin"] == ["5", "5", "5"]
    assert not read_xdisplay(kep.dir, "e")[0].any()
