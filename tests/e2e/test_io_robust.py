"""Malformed volume files and failing writes: a message, no crash, nothing changed."""
import struct

import nibabel as nib
import numpy as np
import pytest

from conftest import stack_line, write_xdisplay


def nifti_bytes(dims=(2, 2, 2), datatype=16, bitpix=32, vox_offset=352.0, endian="<", extender=b"\0\0\0\0"):
    hdr = nib.Nifti1Header(endianness=endian)
    hdr.set_data_dtype(np.float32)
    hdr.set_data_shape((2, 2, 2))
    block = bytearray(hdr.binaryblock)
    dim = [len(dims), *dims] + [1] * (7 - len(dims))
    block[40:56] = struct.pack(endian + "8h", *dim)
    block[70:74] = struct.pack(endian + "2h", datatype, bitpix)
    block[108:112] = struct.pack(endian + "f", vox_offset)
    return bytes(block) + extender


def run_read(kep, name, before="read good.bfloat s\n"):
    write_xdisplay(kep.dir, "good.bfloat", np.ones((2, 2, 2, 1)), np.float32)
    r = kep.stdin(f"{before}read {name} s\nshow-stacks\nquit\n")
    assert r.returncode == 1 and "Fatal" not in r.stderr, r
    # the stack read before is untouched
    assert stack_line(r.stdout, "s")[:4] == ["2", "2", "2", "1"], r
    return r


@pytest.mark.parametrize("dims,message", [
    ((-3, 2, 2), "Error: Value for x dimension not found in header file 'n.nii'\n"),
    ((3, 0, 2), "Error: Value for y dimension not found in header file 'n.nii'\n"),
    ((3, 2, 2, -1), "Error: Value for t dimension not found in header file 'n.nii'\n"),
    ((32767, 32767, 32767, 32767),
     "Error: the dimensions 32767 x 32767 x 32767 x 32767 in file 'n.nii' hold more samples than kep can store.\n"),
])
def test_bad_nifti_dimensions(kep, dims, message):
    (kep.dir / "n.nii").write_bytes(nifti_bytes(dims) + bytes(64))
    r = run_read(kep, "n.nii")
    assert message in r.stdout


def test_large_header_over_a_short_file(kep):
    (kep.dir / "l.bshort").write_bytes(bytes(1000))
    (kep.dir / "l.hdr").write_text("x 1024\ny 1024\nz 256\nt 1\n")
    r = run_read(kep, "l.bshort")
    assert "Error reading file l.bshort.\n" in r.stdout


@pytest.mark.parametrize("content,message", [
    (nifti_bytes(datatype=128, bitpix=24), "Error: the Nifti data storage type 128 is not supported.\n"),
    (nifti_bytes(vox_offset=-4.0), "Error: the voxel offset (-4) in file n.nii is not valid.\n"),
    (nifti_bytes(vox_offset=float("nan")), "Error: the voxel offset (nan) in file n.nii is not valid.\n"),
    (nifti_bytes(extender=b"\1\0\0\0"), "Error: A NIFTI1 extension was indicated, but it is missing.\n"),
    (nifti_bytes(extender=b"\1\0\0\0" + struct.pack("<i", 16)),
     "Error: A NIFTI1 extension was indicated, but the ecode is missing.\n"),
    (nifti_bytes(extender=b"\1\0\0\0" + struct.pack("<2i", 16, 20)), "Error read degrees of freedom.\n"),
    (nifti_bytes(), "Error reading file n.nii.\n"),
    (nifti_bytes(endian=">") + bytes(20), "Error reading file n.nii.\n"),
])
def test_bad_nifti_headers(kep, content, message):
    (kep.dir / "n.nii").write_bytes(content)
    r = run_read(kep, "n.nii")
    assert message in r.stdout


@pytest.mark.parametrize("length", [0, 200])
def test_a_file_shorter_than_a_nifti_header(kep, length):
    """At the prompt an error that leaves the stacks; in a command file still the end."""
    good = np.random.default_rng(6).random((3, 4, 2, 2)).astype(np.float32)
    nib.save(nib.Nifti1Image(good, np.diag([2.0, 3.0, 4.0, 1.0])), str(kep.dir / "good.nii"))
    (kep.dir / "t.nii").write_bytes(nifti_bytes()[:length])
    r = kep.stdin("read good.nii g\nread t.nii s\nwrite-float out.nii g\nquit\n")
    assert r.returncode == 1 and r.stderr == ""
    assert "Error: the file t.nii is shorter than a NIFTI header (348 bytes).\n" in r.stdout
    np.testing.assert_array_equal(np.asanyarray(nib.load(kep.dir / "out.nii").dataobj), good)
    r = kep.script("read t.nii s\nshow nifti-method\n")
    assert r.returncode == 1
    assert r.stderr == "\nError reading header file t.nii\n"
    assert "nifti-method    " not in r.stdout


def test_directories_and_unreadable_files(kep):
    (kep.dir / "d.hdr").mkdir()
    (kep.dir / "d.bfloat").write_bytes(bytes(32))
    r = run_read(kep, "d.bfloat")
    assert "Error: cannot open xdisplay file d.hdr.\n" in r.stdout
    (kep.dir / "n.nii").mkdir()
    r = run_read(kep, "n.nii")
    assert "Error: cannot open Nifti file n.nii.\n" in r.stdout
    (kep.dir / "x.bfloat").mkdir()
    (kep.dir / "x.hdr").write_text("x 2\ny 2\nz 2\nt 1\n")
    r = run_read(kep, "x.bfloat")
    assert "Error: cannot open file x.bfloat.\n" in r.stdout
    (kep.dir / "p.hdr").mkdir()
    (kep.dir / "p.img").write_bytes(bytes(32))
    r = run_read(kep, "p.img")
    assert "Error: cannot open Nifti file p.hdr.\n" in r.stdout


def test_garbage_header_lines(kep):
    (kep.dir / "g.bfloat").write_bytes(bytes(32))
    (kep.dir / "g.hdr").write_bytes(b"\x00\xff\xfe binary\n\x01\x02\n")
    r = run_read(kep, "g.bfloat")
    assert "Error reading the 1st line of the xds header file 'g.hdr'.\n" in r.stdout
