"""read-GLM reads the runs straight into "glm", printing and holding what read, copy, delete would."""
import gzip

import nibabel as nib
import numpy as np
import pytest

from conftest import read_xdisplay, stack_line, write_xdisplay


SHAPE = (7, 5, 3)
EVENTS = "1 {nt}\n\n1\n2 6\n"


def write_run(directory, name, data, seed):
    """One run in the format its name asks for; returns the values kep should hold."""
    if name.endswith(".bshort"):
        write_xdisplay(directory, name, data, np.int16, header_lines=("resolution 2.5 3.25 4.5",))
        return data.astype(np.int16).astype(np.float64)
    # "big" files are big-endian, so read through a buffer and byte-swapped
    header = nib.Nifti1Header(endianness=">" if name.startswith("big") else "<")
    img = nib.Nifti1Image(data.astype(np.float32), np.diag([2.5, 3.25, 4.5, 1.0]), header)
    img.header.set_xyzt_units("mm", "sec")
    img.header["pixdim"][4] = 2.0
    img.header.set_slope_inter(1.5, 10.0 + seed)  # scaling applied on reading
    if name.endswith(".gz"):
        nib.save(nib.Nifti1Image(img.get_fdata(dtype=np.float32), img.affine, img.header), directory / name[:-3])
        (directory / name).write_bytes(gzip.compress((directory / name[:-3]).read_bytes()))
    else:
        nib.save(img, directory / name)
    return np.asanyarray(nib.load(directory / name).dataobj).astype(np.float64)


def expected_output(kep, runs, total):
    """The lines of reading each run by hand (an independent kep process), framed by the macro lines."""
    lines = []
    for r, name in enumerate(runs):
        by_hand = kep.stdin(f"read {name} glm_run{r}\nquit\n").stdout.replace("kep > ", "")
        lines.append(f"macro>> read {name} glm_run{r}\n" + by_hand)
    names = " ".join(f"glm_run{r}" for r in range(len(runs)))
    x, y, z = SHAPE
    lines.append(f"macro>> copy glm {names}\nNew stack glm contains {total} volumes of dimensions ({x},{y},{z})\n"
                 f"macro>> delete {names}\n")
    return "".join(lines)


@pytest.mark.parametrize("runs,lengths", [
    (["a.nii", "b.nii", "c.nii"], [11, 7, 13]),
    (["a.nii.gz", "b.bshort"], [9, 5]),
    (["a.bshort", "b.nii"], [1, 17]),
    (["a.bshort", "big.nii"], [8, 9]),
])
def test_runs_read_straight_into_glm(kep, runs, lengths):
    rng = np.random.default_rng(len(runs))
    held = []
    for seed, (name, nt) in enumerate(zip(runs, lengths)):
        data = rng.normal(100.0, 30.0, SHAPE + (nt,))
        if seed == 0 and name.endswith(".bshort"):
            data[0, 0, 0] = 0  # all zero in the first run: only a later run marks it for fitting
        held.append(write_run(kep.dir, name, data, seed))
        kep.path(f"e{seed}.glm").write_text(EVENTS.format(nt=nt))
    kep.path("study.glm").write_text("runs:\n" + "".join(f"{n} e{i}.glm\n" for i, n in enumerate(runs)))
    total = sum(lengths)
    # The fit right after read-GLM skips the series read as all zero: none is here.
    r = kep.stdin("read-GLM study.glm\nGLM-residual-variance var\nwrite-float var.bfloat var\nshow-stacks\n"
                  "write-float glm.bfloat glm\nquit\n")
    assert expected_output(kep, runs, total) in r.stdout.replace("kep > ", ""), r
    assert stack_line(r.stdout, "glm_run0") is None
    x, y, z = SHAPE
    assert stack_line(r.stdout, "glm")[:5] == [str(x), str(y), str(z), str(total), "mag-phase"]
    values, fields = read_xdisplay(kep.dir, "glm")
    np.testing.assert_array_equal(values, np.concatenate(held, axis=3).astype(np.float32))
    if min(lengths) > 4:  # a run of one image leaves no residual
        assert np.all(read_xdisplay(kep.dir, "var")[0] > 0)
    assert [float(v) for v in fields["resolution"][:3]] == [2.5, 3.25, 4.5]


def test_runs_with_a_subset_or_of_other_sizes_go_through_run_stacks(kep):
    a = write_run(kep.dir, "a.nii", np.random.default_rng(5).normal(size=SHAPE + (6,)), 0)
    write_xdisplay(kep.dir, "small.bfloat", np.ones((3, 3, 3, 4)), np.float32)
    kep.path("e.glm").write_text(EVENTS.format(nt=4))
    kep.path("subset.glm").write_text("runs:\na.nii>1-4 e.glm\na.nii>0-3 e.glm\n")
    kep.path("sizes.glm").write_text("runs:\na.nii e.glm\nsmall.bfloat e.glm\n")
    r = kep.stdin("read-GLM subset.glm\nwrite-float glm.bfloat glm\nread-GLM sizes.glm\nquit\n")
    values, _ = read_xdisplay(kep.dir, "glm")
    np.testing.assert_allclose(values, np.concatenate([a[..., 1:5], a[..., 0:4]], axis=3), rtol=3e-7)
    assert "Stacks glm_run0 and glm_run1 have different dimensions." in r.stderr, r


def test_a_run_cut_short_fails_and_leaves_glm(kep):
    rng = np.random.default_rng(6)
    write_run(kep.dir, "a.nii", rng.normal(size=SHAPE + (6,)), 0)
    write_run(kep.dir, "b.nii", rng.normal(size=SHAPE + (6,)), 1)
    kep.path("e.glm").write_text(EVENTS.format(nt=6))
    kep.path("study.glm").write_text("runs:\na.nii e.glm\nb.nii e.glm\n")
    raw = kep.path("b.nii").read_bytes()
    kep.path("b.nii").write_bytes(raw[:-40])
    r = kep.script("read-GLM study.glm\n")
    assert r.returncode == 1
    assert "30 volumes" not in r.stdout
    assert r.stdout.index("macro>> read a.nii glm_run0\n") < r.stdout.index("Error reading file b.nii.\n"), r


def test_a_magnitude_run_joined_to_a_complex_one_is_read_as_copy_joins_them(kep):
    rng, shape = np.random.default_rng(8), (8, 5, 3)  # complex data need an even number of readout points
    m = rng.normal(size=shape + (6,)).astype(np.float32)
    c = (rng.normal(size=shape + (5,)) + 1j * rng.normal(size=shape + (5,))).astype(np.complex64)
    nib.save(nib.Nifti1Image(m, np.eye(4)), kep.path("m.nii"))
    nib.save(nib.Nifti1Image(c, np.eye(4)), kep.path("c.nii"))
    kep.path("e.glm").write_text(EVENTS.format(nt=6))
    kep.path("study.glm").write_text("runs:\nm.nii e.glm\nc.nii e.glm\n")
    r = kep.script("read-GLM study.glm\nwrite glm.nii glm\n")
    assert "New stack glm contains 11 volumes of dimensions (8,5,3)\n" in r.stdout, r
    written = np.asanyarray(nib.load(kep.path("glm.nii")).dataobj)  # the real parts
    np.testing.assert_array_equal(written, np.concatenate([m, c.real], axis=3))
