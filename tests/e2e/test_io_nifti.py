"""NIfTI-1 files: what kep writes loads in nibabel, what nibabel writes reads into kep."""
import glob
import gzip
import os
import struct
from pathlib import Path

import nibabel as nib
import numpy as np
import pytest

from conftest import KEP, KepSession, kep_values, read_xdisplay, stack_line, write_nifti, write_xdisplay


NIBABEL_DATA = Path("/usr/lib/python3/dist-packages/nibabel/tests/data")

# unequal, non-unit, non-dyadic voxel sizes and origin, and one axis flipped
EXPECTED_AFFINE = np.array([[-2.2, 0, 0, -10.3], [0, 3.1, 0, 20.1], [0, 0, 4.7, 5.7], [0, 0, 0, 1]])


def make_source(kep, complex_values=False, dof=0, shape=(4, 6, 3, 2)):
    rng = np.random.default_rng(7)
    data = rng.uniform(-500, 500, size=shape).astype(np.float32)
    data[:3, 0, 0, 0] = [40000.7, -3.9, -40000.0]
    if complex_values:
        data = data + 1j * rng.uniform(-500, 500, size=shape).astype(np.float32)
    lines = ["data-type complex"] * complex_values + ["resolution 2.2 3.1 4.7 1.3", "origin -10.3 20.1 5.7",
                                                       "direction -1 1 1"] + [f"degrees-of-freedom {dof}"] * bool(dof)
    write_xdisplay(kep.dir, "src.bfloat", data, "f4", lines, pairs=complex_values)
    return data


def short_rule(values):
    t = np.trunc(values.astype(np.float64))
    return np.where((t > -32768) & (t < 32768), t, 32767).astype(np.int16)


@pytest.mark.parametrize("extension", ["nii", "img", "nii.gz"])
@pytest.mark.parametrize("kind", ["float", "short", "complex"])
@pytest.mark.parametrize("dof", [0, 27])
def test_kep_output_loads_in_nibabel(kep, extension, kind, dof):
    data = make_source(kep, complex_values=(kind == "complex"), dof=dof)
    command = "write-short" if kind == "short" else "write"
    prefix = "set complex-output on\n" if kind == "complex" else ""
    r = kep.stdin(f"{prefix}read src.bfloat s\n{command} out.{extension} s\nquit\n")
    assert "2 volume(s) of dimension 4 x 6 x 3 were written to file out.\n" in r.stdout, r

    img = nib.load(str(kep.dir / f"out.{extension}"))
    hdr = img.header
    assert img.shape == (4, 6, 3, 2)
    expected = short_rule(data) if kind == "short" else data.astype(np.complex64 if kind == "complex" else np.float32)
    assert img.get_data_dtype() == expected.dtype
    np.testing.assert_array_equal(np.asanyarray(img.dataobj), expected)
    assert int(hdr["qform_code"]) == 1 and int(hdr["sform_code"]) == 1
    np.testing.assert_allclose(hdr.get_qform(), EXPECTED_AFFINE, atol=1e-5)
    np.testing.assert_allclose(hdr.get_sform(), EXPECTED_AFFINE, atol=1e-6)  # nibabel's affine
    assert float(hdr["pixdim"][4]) == pytest.approx(1.3)
    assert hdr.get_xyzt_units() == ("mm", "sec")
    if extension == "img":
        assert (kep.dir / "out.hdr").stat().st_size == 348
        assert hdr["magic"].tobytes() == b"ni1\0"
        assert len(hdr.extensions) == 0
    else:
        assert hdr["magic"].tobytes() == b"n+1\0"
        raw = (kep.dir / f"out.{extension}").read_bytes()
        if extension == "nii.gz":
            assert not kep.path("out.nii").exists() and not kep.path("out.nii.gz.partial").exists()
            raw = gzip.decompress(raw)
            # the bytes inside are those of the plain file the same command writes
            kep.stdin(f"{prefix}read src.bfloat s\n{command} out.nii s\nquit\n")
            assert raw == kep.path("out.nii").read_bytes()
        if dof:
            assert kep_values(kep, f"out.{extension}")[1]["degrees-of-freedom"] == [str(dof)]
            assert struct.unpack("<f", raw[108:112])[0] == 368
            assert raw[348:352] == bytes([1, 0, 0, 0])
            assert struct.unpack("<4i", raw[352:368]) == (16, 20, dof, 0)
            assert [e.get_code() for e in hdr.extensions] == [20]
        else:
            assert struct.unpack("<f", raw[108:112])[0] == 352
            assert raw[348:352] == bytes(4)


def nibabel_file(path: Path, data, dtype, endianness="<", slope=None, inter=None, affine=None, qform=1, sform=1,
                 saffine=None):
    """Writes a NIfTI-1 file with nibabel's header, controlling every field kep reads."""
    pair = path.suffix == ".img"
    packed = path.name.endswith(".gz")
    hdr = (nib.nifti1.Nifti1PairHeader if pair else nib.Nifti1Header)(endianness=endianness)
    hdr.set_data_dtype(dtype)
    hdr.set_data_shape(data.shape)
    if affine is None:
        affine = np.array([[1.5, 0, 0, 7], [0, -2.5, 0, 9], [0, 0, 3.0, -4], [0, 0, 0, 1]])
    hdr.set_qform(affine, code=qform)
    hdr.set_sform(affine if saffine is None else saffine, code=sform)
    if slope is not None:
        hdr["scl_slope"] = slope
        hdr["scl_inter"] = inter
    raw = np.asarray(data).astype(hdr.get_data_dtype()).tobytes(order="F")
    if pair:
        path.with_suffix(".hdr").write_bytes(hdr.binaryblock)
        path.write_bytes(raw)
    else:
        hdr["vox_offset"] = 352
        raw = hdr.binaryblock + bytes(4) + raw
        path.write_bytes(gzip.compress(raw) if packed else raw)
    return np.asanyarray(nib.load(str(path)).dataobj)


STORAGE = [np.uint8, np.int16, np.int32, np.uint16, np.float32,
           np.float64, np.int8, np.uint32, np.int64, np.uint64]


@pytest.mark.parametrize("dtype", STORAGE, ids=lambda d: np.dtype(d).name)
@pytest.mark.parametrize("endianness", ["<", ">"])
@pytest.mark.parametrize("scaling", [None, (2.0, 10.0), (float("nan"), 5.0), (0.0, 10.0)],
                         ids=["none", "slope2", "nanslope", "zeroslope"])
@pytest.mark.parametrize("suffix", [".nii", ".img", ".nii.gz"])
def test_nibabel_files_read_with_nibabel_values(kep, dtype, endianness, scaling, suffix):
    rng = np.random.default_rng(3)
    info = np.iinfo(dtype) if np.issubdtype(dtype, np.integer) else None
    # 64-bit integers: a range whose float draws still convert without overflow
    lo, hi = (max(info.min, -2**62), min(info.max, 2**62)) if info else (-1e4, 1e4)
    data = rng.uniform(lo, hi, size=(3, 4, 2, 3))
    slope, inter = scaling if scaling else (None, None)
    expected = nibabel_file(kep.dir / ("n" + suffix), data, dtype, endianness, slope, inter)
    values, fields, r = kep_values(kep, "n" + suffix)
    assert "3 volumes of size 3 x 4 x 2 were read and stored in stack v\n" in r.stdout, r
    np.testing.assert_allclose(values, expected, rtol=1e-6)


@pytest.mark.parametrize("endianness", ["<", ">"])
def test_nibabel_complex_reads_as_pairs(kep, endianness):
    rng = np.random.default_rng(5)
    data = (rng.normal(size=(4, 3, 2, 2)) + 1j * rng.normal(size=(4, 3, 2, 2))).astype(np.complex64)
    expected = nibabel_file(kep.dir / "c.nii", data, np.complex64, endianness)
    np.testing.assert_array_equal(kep_values(kep, "c.nii", complex_output=True)[0], expected)


ROTATED = np.array([[0.0, -2.0, 0, 11], [1.5, 0.0, 0, -7], [0, 0, 3.0, 2.5], [0, 0, 0, 1]])


@pytest.mark.parametrize("qform,sform,method", [(0, 0, 1), (0, 1, 3), (0, 2, 3), (1, 0, 2), (1, 1, 3), (2, 4, 3)])
def test_orientation_method_follows_the_codes(kep, qform, sform, method):
    qaff = np.array([[-1.5, 0, 0, 7], [0, 2.5, 0, 9], [0, 0, 3.0, -4], [0, 0, 0, 1]])
    saff = np.array([[1.5, 0, 0, 1], [0, 2.5, 0, 2], [0, 0, 3.0, 3], [0, 0, 0, 1]])  # the method shows in the origin
    data = np.arange(24, dtype=np.float32).reshape(2, 3, 4)
    nibabel_file(kep.dir / "o.nii", data, np.float32, affine=qaff, qform=qform, sform=sform, saffine=saff)
    values, fields, r = kep_values(kep, "o.nii")
    names = {1: "1: the old analyze format", 2: "2: quaternion rotations",
             3: "3: affine transformation of voxel indices"}
    assert f"The NIFTI header for file o.nii uses Method {names[method]}\n" in r.stdout
    # the sform wins whenever it is set, as nibabel also reads it
    affine = nib.load(str(kep.dir / "o.nii")).affine if method > 1 else np.diag([1.5, 2.5, 3.0, 1])
    assert [float(v) for v in fields["origin"]] == pytest.approx(affine[:3, 3])
    assert [float(v) for v in fields["direction"]] == list(np.where(np.diag(affine)[:3] > 0, 1.0, -1.0))
    assert fields["resolution"][:3] == ["1.5", "2.5", "3"]
    np.testing.assert_array_equal(values[..., 0], data)


def test_rotated_matrix_warns_and_keeps_signs(kep):
    nibabel_file(kep.dir / "r.nii", np.ones((2, 2, 2), dtype=np.float32), np.float32, affine=ROTATED, qform=1, sform=1)
    values, fields, r = kep_values(kep, "r.nii")
    assert ("Warning: the stack has voxel indices            (i,j,k)\n"
            "         that are not parallel with coordinates (x,y,z)\n.\n"
            "         On output, (i,j,k) will map to (+-x,+-y,+-z).\n") in r.stdout
    # the rotation's diagonal is zero: every direction reads as -1
    assert fields["direction"] == ["-1", "-1", "1"]
    assert [float(v) for v in fields["origin"]] == pytest.approx([11, -7, 2.5])


ROTATED_SCAN = NIBABEL_DATA / "example4d.nii.gz"  # a real scan with a rotated, sform-and-qform header


def corner_moves(affine, truth, shape):
    """Largest displacement (mm) of the eight corners of the voxel grid between two affines."""
    c = np.array([[i, j, k, 1] for i in (0, shape[0] - 1) for j in (0, shape[1] - 1) for k in (0, shape[2] - 1)]).T
    return float(np.linalg.norm(affine @ c - truth @ c, axis=0).max())


# (commands after `read <scan> v`, stack written, how the written grid relates to the scan's)
ROTATION_CASES = {
    "read": ("", "v", "same"),
    "copy": ("copy w v\n", "w", "same"),
    "arithmetic result": ("copy w v>0\nmultiply w v\n", "v", "same"),
    "nifti-method 2": ("set nifti-method 2\n", "v", "same"),
    "down-sample": ("down-sample v\n", "v", "halved"),
    "clip-x-to": ("clip-x-to 64 v\n", "v", "dropped"),
    "pad-z": ("pad-z v\n", "v", "dropped"),
}


@pytest.mark.skipif(not ROTATED_SCAN.exists(), reason="nibabel's test data are not installed")
@pytest.mark.parametrize("case,suffix", [(c, ".nii") for c in ROTATION_CASES] +
                         [(c, s) for c in ("read", "down-sample") for s in (".nii.gz", ".img")])
def test_rotated_scan_is_written_with_its_rotation(kep, case, suffix):
    commands, stack, grid = ROTATION_CASES[case]
    scan = nib.load(str(ROTATED_SCAN))
    r = kep.stdin(f"read {ROTATED_SCAN} v\n{commands}write-float out{suffix} {stack}\nquit\n")
    out = nib.load(str(kep.dir / f"out{suffix}"))
    # new voxel (i, j) of a halved grid covers old voxels 2i..2i+1, 2j..2j+1
    grid_change = np.array([[2, 0, 0, 0.5], [0, 2, 0, 0.5], [0, 0, 1, 0], [0, 0, 0, 1]]) if grid == "halved" else np.eye(4)
    if grid == "dropped":
        m = out.affine[:3, :3]
        assert np.count_nonzero(m - np.diag(np.diag(m))) == 0, r
        return
    if case == "nifti-method 2":
        assert int(out.header["sform_code"]) == 0
    else:
        assert corner_moves(out.header.get_sform(), scan.affine @ grid_change, out.shape) <= 0.01, r
    # the quaternion (float32, so only as close as the scan's own) for readers that take the qform
    assert corner_moves(out.header.get_qform(), scan.header.get_qform() @ grid_change, out.shape) <= 0.01
    if grid == "same":
        expected = np.asanyarray(scan.dataobj).astype(np.float64)
        if case == "arithmetic result":
            expected = expected * expected[..., :1]
        np.testing.assert_allclose(np.asanyarray(out.dataobj), expected, rtol=1e-6)


@pytest.mark.parametrize("shape", [(2, 3, 2, 2, 2), (2, 3, 2, 1, 3), (3, 2, 2, 2, 1, 1, 2), (3, 4, 2, 5, 1),
                                   (3, 4, 2, 1, 1, 1), (5, 3, 2, 3, 1, 1, 1)])
def test_more_than_four_dimensions_are_refused_unless_the_rest_are_one(kep, shape):
    data = np.random.default_rng(2).normal(size=shape).astype(np.float32)
    nib.save(nib.Nifti1Image(data, np.diag([2.0, 3.0, 1.5, 1])), str(kep.dir / "t.nii"))
    r = kep.stdin("read t.nii v\nwrite-float kepvalues.bfloat v\nquit\n")
    if max(shape[4:]) > 1:
        assert f"Error: kep does not currently handle data of dimensionality ({len(shape)}) > 4.\n" in r.stdout
        assert not kep.path("kepvalues.bfloat").exists()
    else:
        np.testing.assert_array_equal(read_xdisplay(kep.dir, "kepvalues")[0], data.reshape(shape[:3] + (-1,)))


SHIPPED = sorted(glob.glob(str(NIBABEL_DATA / "*.nii")) + glob.glob(str(NIBABEL_DATA / "*.nii.gz")))


@pytest.mark.skipif(not SHIPPED, reason="nibabel's test data are not installed")
@pytest.mark.parametrize("path", [p for p in SHIPPED if "dconn" not in p], ids=os.path.basename)
def test_shipped_nifti_files_read_like_nibabel(kep, path):
    img = nib.load(path)
    values, fields, r = kep_values(kep, path)
    np.testing.assert_allclose(values, img.get_fdata().reshape(values.shape), rtol=1e-6, atol=1e-6)
    np.testing.assert_allclose([float(v) for v in fields["origin"]], img.affine[:3, 3], rtol=1e-4, atol=1e-3)


@pytest.mark.parametrize("suffix", [".nii", ".nii.gz"])
@pytest.mark.parametrize("endianness", ["<", ">"])
@pytest.mark.parametrize("dtype", [np.int16, np.float64, np.int64], ids=lambda d: np.dtype(d).name)
def test_nifti2_single_files_read_like_nibabel(kep, suffix, endianness, dtype):
    data = np.random.default_rng(13).uniform(-3000, 3000, size=(5, 3, 4, 3)).astype(dtype)
    affine = np.array([[-2.5, 0, 0, 31.25], [0, 1.5, 0, -17], [0, 0, 3.25, 8.5], [0, 0, 0, 1]])
    img = nib.Nifti2Image(data, affine, nib.Nifti2Header(endianness=endianness))
    img.header.set_slope_inter(0.5, -3.0)
    nib.save(img, str(kep.dir / ("n2" + suffix)))
    img = nib.load(str(kep.dir / ("n2" + suffix)))
    kep.stdin(f"read n2{suffix} v\nwrite-float out.nii v\nquit\n")
    out = nib.load(str(kep.dir / "out.nii"))
    np.testing.assert_allclose(out.get_fdata(), img.get_fdata(), rtol=1e-6)
    np.testing.assert_allclose(out.affine, img.affine, atol=1e-5)


@pytest.mark.parametrize("unit,scale", [("sec", 1.0), ("msec", 1e-3), ("usec", 1e-6)])
def test_written_header_keeps_seconds_and_description(kep, unit, scale):
    img = nib.Nifti1Image(np.arange(2 * 3 * 2 * 4, dtype=np.float32).reshape(2, 3, 2, 4), np.diag([2.0, 2.0, 3.0, 1]))
    img.header.set_xyzt_units("mm", unit)
    img.header["pixdim"][4] = 2.5 / scale
    img.header["descrip"] = b"run 2 of sub-07, echo 1"
    nib.save(img, str(kep.dir / "d.nii"))
    kep.stdin("read d.nii v\nwrite out.nii v\nquit\n")
    out = nib.load(str(kep.dir / "out.nii")).header
    assert out.get_xyzt_units() == ("mm", "sec")
    assert float(out["pixdim"][4]) == pytest.approx(2.5)
    assert out["descrip"].tobytes().rstrip(b"\0") == b"run 2 of sub-07, echo 1"

# Gzipped single files (".nii.gz"): read, read-loop and the appends take them whole.
def test_subsets_and_the_stack_name_without_both_extensions(kep):
    data = np.arange(4 * 3 * 2 * 7, dtype=np.int16).reshape((4, 3, 2, 7))
    (kep.dir / "a.b").mkdir()
    write_nifti(kep.path("a.b/run.v2.nii.gz"), data, dtype=np.int16)
    values, _, _ = kep_values(kep, "a.b/run.v2.nii.gz", subset="1,4-6")
    np.testing.assert_array_equal(values, data[..., [1, 4, 5, 6]])
    # no stack name: the name without ".nii.gz" (both extensions), as ".nii" loses one
    r = kep.stdin("read a.b/run.v2.nii.gz>6\nshow-stacks\nquit\n")
    assert "1 volume of size 4 x 3 x 2 was read and stored in stack a.b/run.v2\n" in r.stdout
    assert stack_line(r.stdout, "a.b/run.v2")[:4] == ["4", "3", "2", "1"]
    # 8-bit files keep their missing skip: subset 3 gives volume 0, as for ".nii"
    write_nifti(kep.path("bytes.nii.gz"), data, dtype=np.uint8)
    values, _, _ = kep_values(kep, "bytes.nii.gz", subset="3")
    np.testing.assert_array_equal(values[..., 0], data[..., 0])


def test_append_to_a_file_changed_outside_fails_and_keeps_the_count(kep):
    data = make_source(kep, shape=(5, 4, 3, 4))
    session = KepSession(kep.dir, str(KEP))
    out = session.send("read src.bfloat s\nwrite gone.nii.gz s>0\nwrite swapped.nii.gz s>0-1\n")
    assert "were written to file swapped.\n" in out
    kep.path("gone.nii.gz").unlink()
    write_nifti(kep.path("swapped.nii.gz"), data[..., :1])  # one volume where kep wrote two
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
    write_nifti(kep.path("long.nii.gz"), series, dtype=np.int16)
    r = kep.script("read-loop long.nii.gz>3-44 c\nwrite-float chunks.bfloat c\nend-loop\n"
                   "read-loop long.nii.gz>0,2,7 d\nwrite-float picked.bfloat d\nend-loop\nquit\n")
    for line in ("macro>> read long.nii.gz>3-22 c\n", "macro>> read long.nii.gz>23-42 c\n",
                 "macro>> read long.nii.gz>43-44 c\n", "macro>> read long.nii.gz>0,2,7 d\n",
                 "42 volumes now reside in file chunks.\n"):
        assert line in r.stdout, r
    np.testing.assert_array_equal(read_xdisplay(kep.dir, "chunks")[0], series[..., 3:45])
    np.testing.assert_array_equal(read_xdisplay(kep.dir, "picked")[0], series[..., [0, 2, 7]])

