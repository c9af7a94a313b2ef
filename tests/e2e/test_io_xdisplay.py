"""xdisplay and FreeSurfer-style files through the read and write commands."""
import numpy as np
import pytest

from conftest import kep_values, read_header, read_xdisplay, stack_line, write_xdisplay


FOUR_LINES = ("Error: the file type is not recognized,\n"
              "so it was assumed to be an xdisplay file without an extension.\n"
              "However, the storage type was not read from file {}\n"
              "Valid types end in .nii, .img, .bshort, .bfloat, .blong, or _'\n")


def ramp(shape=(3, 4, 2, 10), dtype=np.float32):
    return np.arange(np.prod(shape), dtype=np.float64).reshape(shape, order="F").astype(dtype)


@pytest.mark.parametrize("ext,dtype", [("bshort", np.int16), ("bfloat", np.float32), ("blong", np.int32),
                                       ("ushort", np.uint16)])
@pytest.mark.parametrize("byte_order", [0, 1])
def test_each_storage_and_byte_order_reads(kep, ext, dtype, byte_order):
    data = ramp(dtype=dtype) * (-1 if dtype in (np.int16, np.int32, np.float32) else 1) + 7
    data = data.astype(dtype)
    write_xdisplay(kep.dir, f"run.{ext}", data, dtype, byte_order=byte_order)
    values, fields, r = kep_values(kep, f"run.{ext}")
    assert "10 volumes of size 3 x 4 x 2 were read and stored in stack v\n" in r.stdout
    np.testing.assert_array_equal(values, data.astype(np.float64))


def test_io_increment_shifts_the_subset_which_must_ascend(kep):
    data = ramp(dtype=np.int16)
    write_xdisplay(kep.dir, "run.bshort", data, np.int16)
    r = kep.stdin("set io-increment 3\nread run.bshort>0,2 v\nwrite out.bfloat v\nread run.bshort>5,2 w\n"
                  "read run.bshort>3,3 w\nshow-stacks\nquit\n")
    assert "2 volumes of size 3 x 4 x 2 were read and stored in stack v\n" in r.stdout
    np.testing.assert_array_equal(read_xdisplay(kep.dir, "out")[0], data[..., [3, 5]])
    assert r.stderr.count("Error: volumes must be read in ascending order.\n") == 2
    assert stack_line(r.stdout, "w") is None


def test_names_without_extension_take_the_storage_from_their_header(kep):
    data = ramp(shape=(2, 3, 2, 2), dtype=np.uint8)
    write_xdisplay(kep.dir, "plain", data, np.uint8, ["storage-type unsigned-char"])
    np.testing.assert_array_equal(kep_values(kep, "plain")[0], data)
    # the header's name stands for the data
    np.testing.assert_array_equal(kep_values(kep, "plain.hdr")[0], data)
    # the dot of a directory is not an extension
    (kep.dir / "a.dir").mkdir()
    write_xdisplay(kep.dir / "a.dir", "run", data.astype(np.float32), np.float32, ["storage-type float"])
    np.testing.assert_array_equal(kep_values(kep, "a.dir/run")[0], data)
    # an unknown extension is typed by its header too
    write_xdisplay(kep.dir, "scan.dat", data.astype(np.int32), np.int32, ["storage-type long"])
    np.testing.assert_array_equal(kep_values(kep, "scan.dat")[0], data)


@pytest.mark.parametrize("name,header", [("plain", "plain.hdr"), ("scan.dat", "scan.hdr")])
def test_missing_storage_type_gives_the_four_lines(kep, name, header):
    write_xdisplay(kep.dir, name, ramp(shape=(2, 2, 2, 1)), np.float32)
    r = kep.stdin(f"read {name} v\nshow-stacks\nquit\n")
    assert FOUR_LINES.format(header) in r.stdout
    assert stack_line(r.stdout, "v") is None


def test_header_keywords(kep):
    data = ramp(shape=(4, 2, 3, 2))
    write_xdisplay(kep.dir, "k.bfloat", data, np.float32)
    (kep.dir / "k.hdr").write_text(
        "64 64 16 1\n\n"  # an older first line: numbers ignored
        "matrix 4 2 9 7   # overridden below\n"
        "z 3\nt 2\n"
        "resolution 2.2 3.1 4.7\n"
        "origin 1.3 -2.1 3.7\n"
        "direction -1 1 -1\n"
        "registration PW-rat\n"
        "degrees-of-freedom 12\n"
        "information: free text follows\n"
        "x 99 this is not read\n")
    r = kep.stdin("read k.bfloat s\nwrite o.bfloat s\nshow-stacks s\nquit\n")
    values, fields = read_xdisplay(kep.dir, "o")
    np.testing.assert_array_equal(values, data)
    assert fields["resolution"] == ["2.2", "3.1", "4.7", "1"]  # no time step: written as 1
    assert fields["origin"] == ["1.3", "-2.1", "3.7"]
    assert fields["direction"] == ["-1", "1", "-1"]
    assert fields["registration"] == ["PW-rat"]
    assert fields["degrees-of-freedom"] == ["12"]
    assert stack_line(r.stdout, "s")[:5] == ["4", "2", "3", "2", "mag-phase"]


@pytest.mark.parametrize("lines,message", [
    (["x 4", "y 2", "z 3", "direction 1 -1 0.5"],
     "Error: allowed values for direction (1,-1,0.5) are 1 and -1.\nError reading line 3 of file 'k.hdr'\n"),
    (["x 4", "y 2", "info", "z 3", "t 1"], "Error: Value for z dimension not found in header file 'k.hdr'\n"),
    (["x 4", "y 2", "z 3"], "Error: Value for t dimension not found in header file 'k.hdr'\n"),
    (["x 4", "y two", "z 3", "t 1"], "Error reading line 1 of file 'k.hdr'\n"),
    (["x 4", "", "  # a comment", "y 2", "colour red"], "Error reading line 2 of file 'k.hdr'\n"),
    (["information", "x 4"], "Error reading the 1st line of the xds header file 'k.hdr'.\n"),
    (["x 4", "y 2", "z 3", "t 1", "data-type fancy"],
     "Error: arguments for data-type are\n1) magnitude (this is the default),\n2) complex (or real-imaginary),\n"
     "3) magnitude-phase\nError reading line 4 of file 'k.hdr'\n"),
    (["x 4", "y 2", "z 3", "t 1", "storage-type double"],
     "Error: arguments for storage-type are ...\n    short, float, long, unsigned-short, unsigned-char\n"),
    (["x 4", "y 2", "z 3", "t 1", "registration macaque"],
     "Error: arguments for registration are\n1) paxinos-rat, and\n2) nothing else (paxinos-monkey later?)\n"),
    (["x -4", "y 2", "z 3", "t 1"], "Error: Value for x dimension not found in header file 'k.hdr'\n"),
])
def test_header_errors(kep, lines, message):
    (kep.dir / "k.bfloat").write_bytes(bytes(96))
    (kep.dir / "k.hdr").write_text("\n".join(lines) + "\n")
    r = kep.stdin("read k.bfloat s\nshow-stacks\nquit\n")
    assert message in r.stdout
    assert stack_line(r.stdout, "s") is None


def test_registration_distortions(kep):
    write_xdisplay(kep.dir, "d.bfloat", ramp(shape=(2, 2, 2, 5)), np.float32)
    r = kep.stdin("set registration-distortions d.bfloat\nshow-stacks\nquit\n")
    assert "3 volumes of size 2 x 2 x 2 were stored as distortion maps\n" in r.stdout
    assert stack_line(r.stdout, "registration_distortions") is None
    r = kep.stdin("read d.bfloat>0-1 registration_distortions\nquit\n")
    assert ("Error: 3 distortion fields (x,y,z), not 2, should be read from the distortion file d.bfloat\n"
            in r.stdout)


def write_freesurfer(directory, stem, data, ext="bshort", byte_order=1):
    x, y, z, t = data.shape
    (directory / f"{stem}.bhdr").write_text(
        f"cols: {x}\nrows: {y}\nnslices: {z}\nn_time_points: {t}\nslice_thick: 2.5\n"
        "top_left_r: 0\ntop_left_a: 0\ntop_left_s: 0\n"
        f"top_right_r: {3 * x}\ntop_right_a: {4 * x}\ntop_right_s: 0\n"
        f"bottom_right_r: {3 * x}\nbottom_right_a: {4 * x}\nbottom_right_s: {2 * y}\n"
        "normal_r: 0\nnormal_a: 0\nnormal_s: 1\nimage_te: 30\nimage_tr: 2000\nimage_ti: 0\nflip_angle: 1.57\n")
    dtype = np.dtype(np.int16 if ext == "bshort" else np.float32).newbyteorder("<" if byte_order else ">")
    for k in range(z):
        name = f"{stem}_{k:03d}"
        (directory / f"{name}.{ext}").write_bytes(data[:, :, k, :].astype(dtype).tobytes(order="F"))
        (directory / f"{name}.hdr").write_text(f"{y} {x} {t} {byte_order}\n")


@pytest.mark.parametrize("ext,byte_order", [("bshort", 1), ("bfloat", 0)])
def test_freesurfer_series(kep, ext, byte_order):
    data = ramp(shape=(2, 3, 101, 4)) - 300
    write_freesurfer(kep.dir, "scan", data, ext, byte_order)
    values, fields, r = kep_values(kep, "scan_", subset="1,3")
    assert "2 volumes of size 2 x 3 x 101 were read and stored in stack v\n" in r.stdout
    np.testing.assert_array_equal(values, data[..., [1, 3]])
    assert fields["resolution"][:3] == ["5", "2", "2.5"]
    (kep.dir / f"scan_100.{ext}").unlink()
    assert f"\nError: cannot open file scan_100.{ext}.\n" in kep.stdin("read scan_ v\nquit\n").stdout


def source(kep, shape=(2, 3, 2, 5), values=None, lines=()):
    data = ramp(shape=shape) if values is None else values
    write_xdisplay(kep.dir, "src.bfloat", data, np.float32, ["resolution 2 3 4 2.5", "origin 1 2 3", *lines])
    return data


def test_short_and_unsigned_short_conversions(kep):
    values = np.array([40000.7, -3.9, 1.9, -32768.0, 32767.4, 70000.0, -1.0, 65535.9],
                      dtype=np.float32).reshape((2, 2, 2, 1), order="F")
    source(kep, values=values)
    kep.stdin("read src.bfloat s\nwrite-short a.bshort s\nwrite b.ushort s\nwrite-short c.bfloat s\nquit\n")
    shorts = np.frombuffer((kep.dir / "a.bshort").read_bytes(), "<i2")
    assert shorts.tolist() == [32767, -3, 1, 32767, 32767, 32767, -1, 32767]
    ushorts = np.frombuffer((kep.dir / "b.ushort").read_bytes(), "<u2")
    assert ushorts.tolist() == [40000, 65533, 1, 32768, 32767, 4464, 65535, 65535]
    np.testing.assert_array_equal(np.frombuffer((kep.dir / "c.bfloat").read_bytes(), "<f4"), values.ravel(order="F"))


def test_appends_check_format_type_and_size_and_warn_of_other_geometry(kep):
    source(kep)
    write_xdisplay(kep.dir, "other.bfloat", ramp(shape=(2, 3, 2, 1)), np.float32,
                   ["resolution 1 3 4 2", "origin 1 2 9", "direction 1 -1 1", "registration paxinos-rat"])
    write_xdisplay(kep.dir, "big.bfloat", ramp(shape=(4, 4, 4, 1)), np.float32)
    r = kep.stdin("read src.bfloat s\nread other.bfloat o\nread big.bfloat b\nwrite out.blong s\nwrite out.bfloat s\n"
                  "write out.bshort s\nwrite out.bfloat o\nwrite out.bfloat b\nquit\n")
    assert ("Error: that output file format is not supported.\n"
            "Use the `bfloat' extension or use `bshort' after `rescale'.\n") in r.stdout
    assert "Error: don't mix data types in output file `out.bshort'\n" in r.stdout
    assert "Warning: o not combine registered and un-registered data in the same file.\n" in r.stdout
    assert ("Warning: the resolution of stack o (1.000000 3.000000 4.000000)\n"
            "differs from the resolution assigned to the file (2.000000 3.000000 4.000000)\n") in r.stdout
    assert "Warning: the time step of stack o (2)\ndiffers from that assigned to the file (2.5)\n" in r.stdout
    assert ("Warning: the origin of stack o (1.000000 2.000000 9.000000)\n"
            "differs from the origin assigned to the file (1.000000 2.000000 3.000000)\n") in r.stdout
    assert ("Warning: the direction of stack o (1.000000 -1.000000 1.000000)\n"
            "differs from the direction assigned to the file (1.000000 1.000000 1.000000)\n") in r.stdout
    assert "6 volumes now reside in file out.\n" in r.stdout
    assert "Error: the xdisplay file `out.bfloat' has different dimensions.\n" in r.stdout
    assert read_header(kep.dir / "out.hdr")["t"] == ["6"]


def test_complex_files_are_real_imag_pairs_both_ways(kep):
    rng = np.random.default_rng(2)
    data = (rng.normal(size=(2, 2, 2, 2)) + 1j * rng.normal(size=(2, 2, 2, 2))).astype(np.complex64)
    write_xdisplay(kep.dir, "c.bfloat", data, np.float32, ["data-type complex"], pairs=True)
    write_xdisplay(kep.dir, "odd.bfloat", data[:1], np.float32, ["data-type real-imaginary"], pairs=True)
    r = kep.stdin("set complex-output on\nread c.bfloat s\nshow-stacks\nwrite o.bfloat s\nwrite-short o2.nii s\n"
                  "read odd.bfloat s\nquit\n")
    assert stack_line(r.stdout, "s")[4] == "real-imag"
    assert (kep.dir / "o.hdr").read_text().startswith("data-type complex  # data are stored as (real, imag) pairs\n")
    np.testing.assert_array_equal(read_xdisplay(kep.dir, "o")[0], data)
    assert "There is no NIFTI data type for complex shorts; use complex floats.\n" in r.stdout
    assert "Error: the number of readout points must be divisible by 2 for complex data.\n" in r.stdout
    # without complex output a complex stack is written as magnitudes
    kep.stdin("read c.bfloat s\nwrite m.bfloat s\nquit\n")
    np.testing.assert_allclose(read_xdisplay(kep.dir, "m")[0], np.abs(data), rtol=1e-6)


def test_write_slices(kep):
    data = source(kep, shape=(2, 3, 12, 2))
    r = kep.stdin("read src.bfloat s\nwrite-slices out.bfloat s\nwrite-slices out.bfloat s>1\nquit\n")
    assert "12 slices of dimension 2 x 3 x 2 were written to separate files.\n" in r.stdout
    assert "12 slices of dimension 2 x 3 x 3 were written to separate files.\n3 volumes now reside in files of type out.\n" in r.stdout
    for z in range(12):
        values = np.frombuffer((kep.dir / f"out_{z:03d}.bfloat").read_bytes(), "<f4").reshape((2, 3, 3), order="F")
        np.testing.assert_array_equal(values, data[:, :, z, [0, 1, 1]])
    assert (kep.dir / "out_010.hdr").read_text() == (
        "x 2\ny 3\nz 1\nt 3\nbyte-order 1\nresolution 2 3 4\norigin 1 2 3\ndirection 1 1 1\n")
    r = kep.stdin("read src.bfloat s\nwrite-slices sl.nii s\nquit\n")
    assert (kep.dir / "sl_000.bshort").stat().st_size == 2 * 3 * 2 * 2
