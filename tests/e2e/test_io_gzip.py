"""Gzipped single NIfTI files (".nii.gz"): read, read-loop and read-GLM take them, the write
commands write them compressed, and a damaged one is an error that leaves everything intact."""
import gzip
import subprocess
import sys

import nibabel as nib
import numpy as np
import pytest

from conftest import KEP, SOURCE
from io_files import KepSession, kep_values, read_xdisplay, stack_line, write_xdisplay

AFFINE = np.array([[-2.0, 0, 0, 30.0], [0, 3.0, 0, -12.5], [0, 0, 4.0, 7.0], [0, 0, 0, 1]])


def save_gz(path, data, dtype, slope=None, inter=0.0, tr=2.5):
    """A compressed NIfTI-1 file from nibabel with both orientation forms set."""
    img = nib.Nifti1Image(np.asarray(data).astype(dtype), AFFINE)
    img.set_qform(AFFINE, code=1)
    img.set_sform(AFFINE, code=1)
    img.header.set_xyzt_units("mm", "sec")
    if np.asarray(data).ndim == 4:
        img.header["pixdim"][4] = tr
    if slope is not None:
        img.header.set_slope_inter(slope, inter)
    nib.save(img, str(path))
    assert path.read_bytes()[:2] == b"\x1f\x8b"


def source_stack(kep, shape=(5, 4, 3, 4), dof=0):
    """An xdisplay float file src.bfloat with geometry, the stack every write test starts from."""
    rng = np.random.default_rng(5)
    data = rng.uniform(-900, 900, size=shape).astype(np.float32)
    data[0, 0, 0, 0] = 40000.7  # beyond the short range: written as 32767 by write-short
    data[1, 0, 0, 0] = -3.9
    lines = ["resolution 2 3 4 1.5", "origin 30 -12.5 7", "direction -1 1 1"]
    if dof:
        lines.append(f"degrees-of-freedom {dof}")
    write_xdisplay(kep.dir, "src.bfloat", data, "f4", lines)
    return data


def short_rule(values):
    t = np.trunc(values.astype(np.float64))
    return np.where((t > -32768) & (t < 32768), t, 32767).astype(np.int16)


@pytest.mark.parametrize("dtype,slope,inter", [
    (np.int16, None, 0.0),
    (np.int16, 2.0, 10.0),  # a stored 5 becomes 20
    (np.float32, None, 0.0),
    (np.float32, 0.5, -3.0),
    (np.uint8, None, 0.0),
    (np.uint16, 1.5, 0.0),
    (np.int32, None, 0.0),
])
def test_nibabel_files_read_with_values_scaling_and_geometry(kep, dtype, slope, inter):
    rng = np.random.default_rng(3)
    info = np.iinfo(dtype) if np.issubdtype(dtype, np.integer) else None
    low, high = (max(info.min, -30000), min(info.max, 30000)) if info else (-1e4, 1e4)
    stored = rng.uniform(low, high, size=(6, 5, 3, 4)).astype(dtype)
    stored[0, 0, 0, 0] = 5
    save_gz(kep.path("scan.nii.gz"), stored, dtype, slope, inter)
    values, fields, r = kep_values(kep, "scan.nii.gz")
    assert "The NIFTI header for file scan.nii.gz uses Method 3: affine transformation of voxel indices\n" in r.stdout
    assert "4 volumes of size 6 x 5 x 3 were read and stored in stack v\n" in r.stdout
    expected = stored.astype(np.float64) * (slope if slope else 1.0) + (inter if slope else 0.0)
    np.testing.assert_allclose(values, expected, rtol=1e-6)
    if slope == 2.0:
        assert values[0, 0, 0, 0] == 20.0
    assert fields["resolution"] == ["2", "3", "4", "2.5"]
    assert fields["origin"] == ["30", "-12.5", "7"]
    assert fields["direction"] == ["-1", "1", "1"]


def test_subsets_and_the_stack_name_without_both_extensions(kep):
    data = np.arange(4 * 3 * 2 * 7, dtype=np.int16).reshape((4, 3, 2, 7))
    (kep.dir / "a.b").mkdir()
    save_gz(kep.path("a.b/run.v2.nii.gz"), data, np.int16)
    values, _, _ = kep_values(kep, "a.b/run.v2.nii.gz", subset="1,4-6")
    np.testing.assert_array_equal(values, data[..., [1, 4, 5, 6]])
    # no stack name: the name without ".nii.gz" (both extensions), as ".nii" loses one
    r = kep.stdin("read a.b/run.v2.nii.gz>6\nshow-stacks\nquit\n")
    assert "1 volume of size 4 x 3 x 2 was read and stored in stack a.b/run.v2\n" in r.stdout
    assert stack_line(r.stdout, "a.b/run.v2")[:4] == ["4", "3", "2", "1"]
    # 8-bit files keep their missing skip: subset 3 gives volume 0, as for ".nii"
    save_gz(kep.path("bytes.nii.gz"), data.astype(np.uint8), np.uint8)
    values, _, _ = kep_values(kep, "bytes.nii.gz", subset="3")
    np.testing.assert_array_equal(values[..., 0], data[..., 0])


@pytest.mark.parametrize("command,dtype", [("write", np.float32), ("write-float", np.float32),
                                           ("write-short", np.int16)])
@pytest.mark.parametrize("dof", [0, 31])
def test_written_files_are_compressed_and_load_in_nibabel(kep, command, dtype, dof):
    data = source_stack(kep, dof=dof)
    r = kep.stdin(f"read src.bfloat s\n{command} out.nii.gz s\nquit\n")
    assert "4 volume(s) of dimension 5 x 4 x 3 were written to file out.\n" in r.stdout, r
    raw = kep.path("out.nii.gz").read_bytes()
    assert raw[:2] == b"\x1f\x8b"
    assert not kep.path("out.nii").exists() and not kep.path("out.nii.gz.partial").exists()
    img = nib.load(str(kep.path("out.nii.gz")))
    assert img.shape == (5, 4, 3, 4)
    values = np.asanyarray(img.dataobj)
    assert values.dtype == dtype
    np.testing.assert_array_equal(values, short_rule(data) if dtype == np.int16 else data)
    expected = np.array([[-2.0, 0, 0, 30], [0, 3, 0, -12.5], [0, 0, 4, 7], [0, 0, 0, 1]])
    np.testing.assert_allclose(img.affine, expected, atol=1e-5)
    np.testing.assert_allclose(img.header.get_qform(), expected, atol=1e-5)
    assert float(img.header["pixdim"][4]) == pytest.approx(1.5)
    # the bytes inside are those of the plain file the same command writes
    r = kep.stdin(f"read src.bfloat s\n{command} out.nii s\nquit\n")
    assert gzip.decompress(raw) == kep.path("out.nii").read_bytes()
    assert [e.get_code() for e in img.header.extensions] == ([20] if dof else [])


def test_append_rewrites_the_whole_file(kep):
    data = source_stack(kep)
    r = kep.stdin("read src.bfloat s\nwrite out.nii.gz s>0-1\nwrite out.nii.gz s>3\nwrite out.nii.gz s>0\n"
                  "write-short out.nii.gz s\nwrite out.nii s>2\nquit\n")
    assert "1 volume(s) of dimension 5 x 4 x 3 were written to file out.\n3 volumes now reside in file out.\n" in r.stdout
    assert "4 volumes now reside in file out.\n" in r.stdout
    assert "Error: don't mix data types in output file `out.nii.gz'\n" in r.stdout
    # "out.nii" is another file than "out.nii.gz": a new file of its own
    assert "1 volume(s) of dimension 5 x 4 x 3 were written to file out.\n" in r.stdout.split("mix data types")[1]
    img = nib.load(str(kep.path("out.nii.gz")))
    assert img.shape == (5, 4, 3, 4)
    np.testing.assert_array_equal(np.asanyarray(img.dataobj), data[..., [0, 1, 3, 0]])
    assert nib.load(str(kep.path("out.nii"))).shape == (5, 4, 3, 1)
    assert sorted(p.name for p in kep.dir.iterdir()) == ["out.nii", "out.nii.gz", "src.bfloat", "src.hdr"]


def test_append_to_a_file_changed_outside_fails_and_keeps_the_count(kep):
    data = source_stack(kep)
    session = KepSession(kep.dir, str(KEP))
    out = session.send("read src.bfloat s\nwrite gone.nii.gz s>0\nwrite swapped.nii.gz s>0-1\n")
    assert "were written to file swapped.\n" in out
    kep.path("gone.nii.gz").unlink()
    save_gz(kep.path("swapped.nii.gz"), data[..., :1], np.float32)  # one volume where kep wrote two
    out, err, _ = session.finish("write gone.nii.gz s>1\nwrite swapped.nii.gz s>2\nwrite other.nii.gz s>3\nquit\n")
    assert err == ""
    assert "Error: cannot open the existing file gone.nii.gz.\n" in out
    assert "Error: the existing file swapped.nii.gz no longer holds the 2 volumes written to it.\n" in out
    assert "were written to file other.\n" in out  # the session goes on
    assert not kep.path("gone.nii.gz").exists() and not kep.path("swapped.nii.gz.partial").exists()
    assert nib.load(str(kep.path("swapped.nii.gz"))).shape == (5, 4, 3, 1)


def test_read_loop_reads_the_right_chunks_of_a_compressed_file(kep):
    # volumes of 64 x 64 x 16 samples take 0.52 MB in memory: chunks of 20 volumes
    t = np.arange(45, dtype=np.int16)
    data = (np.arange(64 * 64 * 16, dtype=np.int32).reshape((64, 64, 16)) % 500).astype(np.int16)
    series = data[..., None] + 1000 * t[None, None, None, :]
    save_gz(kep.path("long.nii.gz"), series, np.int16)
    r = kep.script("read-loop long.nii.gz>3-44 c\nwrite-float chunks.bfloat c\nend-loop\n"
                   "read-loop long.nii.gz>0,2,7 d\nwrite-float picked.bfloat d\nend-loop\nquit\n")
    for line in ("macro>> read long.nii.gz>3-22 c\n", "macro>> read long.nii.gz>23-42 c\n",
                 "macro>> read long.nii.gz>43-44 c\n", "macro>> read long.nii.gz>0,2,7 d\n",
                 "42 volumes now reside in file chunks.\n"):
        assert line in r.stdout, r
    values, _ = read_xdisplay(kep.dir, "chunks")
    np.testing.assert_array_equal(values, series[..., 3:45])
    values, _ = read_xdisplay(kep.dir, "picked")
    np.testing.assert_array_equal(values, series[..., [0, 2, 7]])


def test_read_glm_takes_compressed_runs(kep):
    subprocess.run([sys.executable, str(SOURCE / "examples" / "make_study.py"), str(kep.dir), "8", "8", "3", "30"],
                   check=True, capture_output=True)
    control = kep.path("study.glm").read_text()
    for run in ("run1", "run2"):
        kep.path(f"{run}.nii.gz").write_bytes(gzip.compress(kep.path(f"{run}.nii").read_bytes()))
    kep.path("packed.glm").write_text(control.replace(".nii ", ".nii.gz "))
    assert "run1.nii.gz run1.glm" in kep.path("packed.glm").read_text()
    r = kep.script("read-GLM study.glm\nwrite-float plain.bfloat glm\nread-GLM packed.glm\n"
                   "write-float packed.bfloat glm\nGLM-fit-events eff\nshow-stacks\n")
    assert "30 volumes of size 8 x 8 x 3 were read and stored in stack glm_run1\n" in r.stdout, r
    assert stack_line(r.stdout, "glm")[:4] == ["8", "8", "3", "60"]
    assert stack_line(r.stdout, "glm_run0") is None
    plain, _ = read_xdisplay(kep.dir, "plain")
    packed, _ = read_xdisplay(kep.dir, "packed")
    assert plain.shape == (8, 8, 3, 60)
    np.testing.assert_array_equal(packed, plain)


def test_damaged_files_are_errors_that_leave_stacks_and_session(kep):
    good = np.arange(4 * 3 * 2 * 3, dtype=np.float32).reshape((4, 3, 2, 3))
    save_gz(kep.path("good.nii.gz"), good, np.float32)
    raw = gzip.decompress(kep.path("good.nii.gz").read_bytes())
    packed = kep.path("good.nii.gz").read_bytes()
    kep.path("cut-header.nii.gz").write_bytes(gzip.compress(raw[:200]))
    kep.path("cut-data.nii.gz").write_bytes(gzip.compress(raw[:-10]))
    kep.path("cut-stream.nii.gz").write_bytes(packed[:25])
    kep.path("empty.nii.gz").write_bytes(b"")
    damaged = bytearray(packed)
    for i in range(12, len(damaged) - 8):
        damaged[i] ^= 0xA5
    kep.path("damaged.nii.gz").write_bytes(bytes(damaged))
    kep.path("junk.nii.gz").write_bytes(b"\x1f\x8b\x08\x00" + bytes(range(256)) * 4)
    names = ["cut-header", "cut-data", "cut-stream", "empty", "damaged", "junk", "missing"]
    script = "read good.nii.gz s\n" + "".join(f"read {n}.nii.gz s\n" for n in names)
    r = kep.stdin(script + "write-float after.bfloat s\nshow-stacks\nquit\n")
    assert r.stderr == "" and r.returncode == 1, r
    for n in ("cut-header", "cut-stream", "empty"):
        assert (f"Error: cannot read the NIFTI header of the compressed file {n}.nii.gz; "
                "it is cut short or damaged.\n") in r.stdout
    assert "Error reading file cut-data.nii.gz.\n" in r.stdout
    assert "Error: cannot open Nifti file missing.nii.gz.\n" in r.stdout
    # a damaged stream either decodes to an invalid header or ends early: an error either way
    assert r.stdout.count("were read and stored in stack s") == 1
    assert stack_line(r.stdout, "s")[:4] == ["4", "3", "2", "3"]
    values, _ = read_xdisplay(kep.dir, "after")
    np.testing.assert_array_equal(values, good)
    # the read loop reports the damaged header the same way, reads nothing and ends the command file
    r = kep.script("read-loop cut-header.nii.gz c\nshow-stacks\nend-loop\n")
    assert "Error: cannot read the NIFTI header of the compressed file cut-header.nii.gz" in r.stdout
    assert "stored in stack" not in r.stdout
    assert r.stderr == "Fatal error: the command `read-loop' failed.\nProgram aborted.\n"


def test_a_plain_file_named_nii_gz_reads_as_it_is(kep):
    good = np.arange(3 * 3 * 2, dtype=np.int16).reshape((3, 3, 2))
    save_gz(kep.path("z.nii.gz"), good, np.int16)
    kep.path("plain.nii.gz").write_bytes(gzip.decompress(kep.path("z.nii.gz").read_bytes()))
    values, _, r = kep_values(kep, "plain.nii.gz")
    np.testing.assert_array_equal(values[..., 0], good)


def test_reads_after_one_another_follow_the_file_on_disk(kep):
    # kep keeps the last compressed stream open where it stopped: later reads must still see the
    # volumes asked for, backwards as well as forwards, and a file replaced in between
    first = np.arange(4 * 3 * 2 * 8, dtype=np.float32).reshape((4, 3, 2, 8))
    second = -first
    save_gz(kep.path("a.nii.gz"), first, np.float32)
    save_gz(kep.path("b.nii.gz"), second, np.float32)
    session = KepSession(kep.dir, str(KEP))
    session.send("read a.nii.gz>2-3 p\nread a.nii.gz>5 q\nread a.nii.gz>1 r\nread a.nii.gz>4,6 s\n")
    kep.path("b.nii.gz").replace(kep.path("a.nii.gz"))
    out, err, _ = session.finish("read a.nii.gz>7 t\nwrite-float out.bfloat p q r s t\nquit\n")
    assert err == "" and "7 volume(s) of dimension 4 x 3 x 2 were written to file out.\n" in out, out
    values, _ = read_xdisplay(kep.dir, "out")
    np.testing.assert_array_equal(values[..., :6], first[..., [2, 3, 5, 1, 4, 6]])
    np.testing.assert_array_equal(values[..., 6], second[..., 7])
