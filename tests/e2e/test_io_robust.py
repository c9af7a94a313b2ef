"""Malformed volume files and failing writes: a message, no crash, nothing changed."""
import gzip
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
    block[40:56] = struct.pack(endian + "8h", *[len(dims), *dims] + [1] * (7 - len(dims)))
    block[70:74] = struct.pack(endian + "2h", datatype, bitpix)
    block[108:112] = struct.pack(endian + "f", vox_offset)
    return bytes(block) + extender


DIRECTORY = None  # a directory where a file is expected
HEADER = "x 2\ny 2\nz 2\nt 1\n"
RAW = nib.Nifti1Image(np.arange(24, dtype=np.float32).reshape((2, 3, 4)), np.eye(4)).to_bytes()
PACKED = gzip.compress(RAW)
PAIR2, HUGE2 = nib.nifti2.Nifti2PairHeader(), nib.Nifti2Header()
PAIR2.set_data_shape((2, 2, 2))
HUGE2.set_data_shape((2**40, 2, 2))  # 64-bit dimensions beyond an int
CUT_GZ = "Error: cannot read the NIFTI header of the compressed file n.nii.gz; it is cut short or damaged.\n"


@pytest.mark.parametrize("files,message", [
    ({"n.nii": nifti_bytes((-3, 2, 2)) + bytes(64)}, "Error: Value for x dimension not found in header file 'n.nii'\n"),
    ({"n.nii": nifti_bytes((3, 0, 2)) + bytes(64)}, "Error: Value for y dimension not found in header file 'n.nii'\n"),
    ({"n.nii": nifti_bytes((3, 2, 2, -1)) + bytes(64)},
     "Error: Value for t dimension not found in header file 'n.nii'\n"),
    ({"n.nii": nifti_bytes((32767,) * 4) + bytes(64)},
     "Error: the dimensions 32767 x 32767 x 32767 x 32767 in file 'n.nii' hold more samples than kep can store.\n"),
    ({"n.nii": nifti_bytes(datatype=128, bitpix=24)}, "Error: the Nifti data storage type 128 is not supported.\n"),
    ({"n.nii": nifti_bytes(vox_offset=-4.0)}, "Error: the voxel offset (-4) in file n.nii is not valid.\n"),
    ({"n.nii": nifti_bytes(vox_offset=float("nan"))}, "Error: the voxel offset (nan) in file n.nii is not valid.\n"),
    ({"n.nii": nifti_bytes(extender=b"\1\0\0\0")}, "Error: A NIFTI1 extension was indicated, but it is missing.\n"),
    ({"n.nii": nifti_bytes(extender=b"\1\0\0\0" + struct.pack("<i", 16))},
     "Error: A NIFTI1 extension was indicated, but the ecode is missing.\n"),
    ({"n.nii": nifti_bytes(extender=b"\1\0\0\0" + struct.pack("<2i", 16, 20))}, "Error read degrees of freedom.\n"),
    ({"n.nii": nifti_bytes()}, "Error reading file n.nii.\n"),
    ({"n.nii": nifti_bytes(endian=">") + bytes(20)}, "Error reading file n.nii.\n"),
    ({"n.nii": DIRECTORY}, "Error: cannot open Nifti file n.nii.\n"),
    ({"n.nii.gz": gzip.compress(RAW[:200])}, CUT_GZ),
    ({"n.nii.gz": PACKED[:25]}, CUT_GZ),
    ({"n.nii.gz": b""}, CUT_GZ),
    ({"n.nii.gz": gzip.compress(RAW[:-10])}, "Error reading file n.nii.gz.\n"),
    # a damaged stream either decodes to an invalid header or ends early: an error either way
    ({"n.nii.gz": PACKED[:12] + bytes(b ^ 0xA5 for b in PACKED[12:-8]) + PACKED[-8:]}, "Error"),
    ({"n.nii.gz": b"\x1f\x8b\x08\x00" + bytes(range(256)) * 4}, "Error"),
    ({}, "Error: cannot open Nifti file n.nii.gz.\n"),
    ({"n.hdr": PAIR2.binaryblock, "n.img": bytes(32)},
     "Error: n.hdr is a NIFTI-2 header; kep reads NIFTI-2 only as single files (.nii, .nii.gz).\n"),
    ({"n.nii": nib.Nifti2Header().binaryblock[:400]}, "Error: the NIFTI-2 header of file n.nii is cut short.\n"),
    ({"n.nii": HUGE2.binaryblock + bytes(68)},
     "Error: the dimensions in file 'n.nii' hold more samples than kep can store.\n"),
    ({"n.hdr": DIRECTORY, "n.img": bytes(32)}, "Error: cannot open Nifti file n.hdr.\n"),
    ({"n.bshort": bytes(1000), "n.hdr": "x 1024\ny 1024\nz 256\nt 1\n"}, "Error reading file n.bshort.\n"),
    ({"n.hdr": DIRECTORY, "n.bfloat": bytes(32)}, "Error: cannot open xdisplay file n.hdr.\n"),
    ({"n.bfloat": DIRECTORY, "n.hdr": HEADER}, "Error: cannot open file n.bfloat.\n"),
    ({"n.bfloat": bytes(32), "n.hdr": b"\x00\xff\xfe binary\n\x01\x02\n"},
     "Error reading the 1st line of the xds header file 'n.hdr'.\n"),
])
def test_unreadable_files_are_errors_that_leave_the_stacks(kep, files, message):
    for name, content in files.items():
        path = kep.path(name)
        if content is None:
            path.mkdir()
        else:
            path.write_bytes(content.encode() if isinstance(content, str) else content)
    write_xdisplay(kep.dir, "good.bfloat", np.ones((2, 2, 2, 1)), np.float32)
    name = next((n for n in files if not n.endswith(".hdr") or len(files) == 1), "n.nii.gz")
    r = kep.stdin(f"read good.bfloat s\nread {name} s\nshow-stacks\nquit\n")
    assert r.returncode == 1 and "Fatal" not in r.stderr, r
    assert message in r.stdout
    assert stack_line(r.stdout, "s")[:4] == ["2", "2", "2", "1"], r


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
