"""Full disks, missing or read-only directories, data that vanishes while read, too little memory:
a message each; stacks, files and session intact; no header claims volumes its data lack."""
import gzip
import resource
import shutil
import signal
import subprocess
from pathlib import Path

import nibabel as nib
import numpy as np
import pytest

from conftest import KEP, KepSession, read_header, read_xdisplay, stack_line, write_xdisplay

SHAPE = (16, 16, 8)                     # one float volume: 8192 bytes
VOLUME = SHAPE[0] * SHAPE[1] * SHAPE[2] * 4


def sanitized():
    """kep built with AddressSanitizer, which reserves more address space than any `ulimit -v`."""
    return b"__asan_init" in Path(KEP).read_bytes()


def source(directory, volumes=10, seed=1):
    """src.bfloat: random floats (they barely compress), volume t offset by 1000 t."""
    data = np.random.default_rng(seed).uniform(-100, 100, size=(*SHAPE, volumes)).astype(np.float32)
    data += 1000 * np.arange(volumes, dtype=np.float32)
    write_xdisplay(Path(directory), "src.bfloat", data, "f4", ["resolution 2 2 3 1.5"])
    return data


def file_size_limit(limit):
    """For preexec_fn: writes past `limit` bytes fail with EFBIG, as on a full disk."""
    def apply():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
    return apply


def held(kep, ext, size):
    """Volumes the header of out.<ext> claims, and volumes its data hold."""
    if ext.startswith("b"):
        return int(read_header(kep.path("out.hdr"))["t"][0]), kep.path(f"out.{ext}").stat().st_size // size
    img = nib.load(str(kep.path(f"out.{ext}")))
    raw = kep.path(f"out.{ext}").read_bytes()
    raw = gzip.decompress(raw) if ext == "nii.gz" else raw
    return img.shape[3] if len(img.shape) > 3 else 1, (len(raw) - int(img.header["vox_offset"])) // size


@pytest.mark.parametrize("ext", ["bfloat", "bshort", "nii", "img", "nii.gz"])
def test_writes_that_overflow_the_disk_leave_the_file_as_it_was(kep, ext):
    data = source(kep.dir)
    size = VOLUME // 2 if ext == "bshort" else VOLUME
    # room for five volumes and a half: ten do not fit, nor four more after four
    session = KepSession(kep.dir, str(KEP), preexec_fn=file_size_limit(352 + 5 * size + size // 2))
    out = session.send(f"read src.bfloat s\nwrite out.{ext} s\n")
    assert f"Error writing the output file out.{ext}.\n" in out
    assert not [p.name for p in kep.dir.iterdir() if p.name.startswith("out")]  # a new file is removed
    out = session.send(f"write out.{ext} s>0-3\nwrite out.{ext} s>4-7\n")
    assert "4 volume(s) of dimension 16 x 16 x 8 were written to file out.\n" in out  # afresh
    assert f"Error writing the output file out.{ext}.\n" in out and "now reside" not in out
    assert held(kep, ext, size) == (4, 4)
    assert not kep.path("out.nii.gz.partial").exists()
    # the registry forgot the failed volumes: the next append counts from four
    out, err, _ = session.finish(f"write out.{ext} s>9\nquit\n")
    assert err == "" and "5 volumes now reside in file out.\n" in out, out
    assert held(kep, ext, size) == (5, 5)
    b = ext.startswith("b")
    values = read_xdisplay(kep.dir, "out", ext)[0] if b else np.asanyarray(nib.load(kep.path(f"out.{ext}")).dataobj)
    expected = data[..., [0, 1, 2, 3, 9]]
    np.testing.assert_array_equal(values, np.trunc(expected) if ext == "bshort" else expected)


def test_header_that_cannot_be_written_undoes_the_append(kep):
    data = source(kep.dir)
    session = KepSession(kep.dir, str(KEP))
    session.send("read src.bfloat s\nwrite out.bfloat s>0-1\n")
    kep.path("out.hdr").unlink()
    kep.path("out.hdr").symlink_to("/dev/full")
    out = session.send("write out.bfloat s>2\n")
    assert "Error writing the output file out.hdr.\n" in out
    assert kep.path("out.bfloat").stat().st_size == 2 * VOLUME
    kep.path("out.hdr").unlink()
    out, err, _ = session.finish("write out.bfloat s>5\nquit\n")
    assert "3 volumes now reside in file out.\n" in out
    values, fields = read_xdisplay(kep.dir, "out")
    np.testing.assert_array_equal(values, data[..., [0, 1, 5]])


def test_write_slices_failing_at_a_later_slice_restores_the_earlier_ones(kep):
    data = source(kep.dir)
    session = KepSession(kep.dir, str(KEP))
    out = session.send("read src.bfloat s\nwrite-slices sl.bfloat s>0-1\n")
    assert "8 slices of dimension 16 x 16 x 2 were written to separate files.\n" in out
    kep.path("sl_003.bfloat").unlink()
    kep.path("sl_003.bfloat").symlink_to("/dev/full")
    out = session.send("write-slices sl.bfloat s>2\n")
    assert "Error writing the output file sl_003.bfloat.\n" in out
    for z in range(3):  # appended to before the failure, then cut back
        assert kep.path(f"sl_{z:03d}.bfloat").stat().st_size == 2 * 16 * 16 * 4
        assert read_header(kep.path(f"sl_{z:03d}.hdr"))["t"] == ["2"]
    kep.path("sl_003.bfloat").unlink()
    out, err, _ = session.finish("write-slices sl.bfloat s>4\nquit\n")
    assert "3 volumes now reside in files of type sl.\n" in out
    for z in (0, 7):
        assert read_header(kep.path(f"sl_{z:03d}.hdr"))["t"] == ["3"]
        plane = np.frombuffer(kep.path(f"sl_{z:03d}.bfloat").read_bytes(), "<f4").reshape((16, 16, 3), order="F")
        np.testing.assert_array_equal(plane, data[:, :, z, [0, 1, 4]])


@pytest.mark.parametrize("command,name,full,message", [
    ("write", "out.bfloat", "out.bfloat", "Error writing the output file out.bfloat.\n"),
    ("write-short", "out.nii", "out.nii", "Error writing the NIFTI header into file out.nii\n"),
    ("write-float", "out.img", "out.img", "Error writing the output file out.img.\n"),
    ("write", "out.nii.gz", "out.nii.gz", "Error writing the output file out.nii.gz.\n"),
    ("write-slices", "out.bfloat", "out_000.bfloat", "Error writing the output file out_000.bfloat.\n"),
    ("write", "nodir/out.bfloat", None, "Error: cannot open the new file nodir/out.bfloat.\n"),
    ("write", "nodir/out.nii", None, "Error: cannot open the header file nodir/out.nii.\n"),
    ("write", "nodir/out.img", None, "Error: cannot open the new file nodir/out.img.\n"),
    ("write-short", "nodir/out.nii.gz", None, "Error: cannot open the new file nodir/out.nii.gz.\n"),
    ("write-slices", "nodir/out.bshort", None, "Error: cannot open the new file nodir/out_000.bshort.\n"),
])
def test_a_write_to_a_full_device_or_missing_directory_leaves_nothing_on_record(kep, command, name, full,
                                                                               message):
    source(kep.dir, volumes=2)
    if full:
        kep.path(full).symlink_to("/dev/full")
    session = KepSession(kep.dir, str(KEP))
    out = session.send(f"read src.bfloat s\n{command} {name} s>0\n")
    assert message in out and "were written to" not in out, out
    # nothing else was created; the device (or its absence) stays as it was
    assert sorted(p.name for p in kep.dir.iterdir() if p.name.startswith(("out", "nodir"))) == ([full] if full else [])
    if full:
        kep.path(full).unlink()
    else:
        kep.path("nodir").mkdir()
    out, err, _ = session.finish(f"{command} {name} s>1\nquit\n")
    assert err == "" and "now reside" not in out  # the failed write left no volumes on record
    assert "were written to" in out


def as_nobody(directory, text):
    """Runs kep as user and group 65534, as a scientist without rights to a directory would."""
    drop = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    if shutil.which("setpriv") is None or subprocess.run(drop + ["true"], capture_output=True).returncode:
        pytest.skip("setpriv cannot drop privileges here")
    if any(p.stat().st_mode & 0o005 != 0o005 for p in Path(KEP).parents if p != Path("/")):
        pytest.skip("the kep binary is not reachable by an unprivileged user")
    proc = subprocess.run(drop + [str(KEP)], input=text.encode(), cwd=directory, capture_output=True, timeout=120)
    return proc.stdout.decode(), proc.stderr.decode(), proc.returncode


def test_read_only_file_in_a_writable_directory_is_left_alone(kep):
    source(kep.dir, volumes=2)
    (kep.dir / "src.bfloat").chmod(0o644)
    (kep.dir / "src.hdr").chmod(0o644)
    (kep.dir / "w").mkdir()
    (kep.dir / "w").chmod(0o777)
    for name in ("out.bfloat", "out.nii", "out.nii.gz"):
        (kep.dir / "w" / name).write_bytes(b"precious")
        (kep.dir / "w" / name).chmod(0o444)
    out, err, status = as_nobody(kep.dir, "read src.bfloat s\nwrite w/out.bfloat s\nwrite w/out.nii s\n"
                                             "write w/out.nii.gz s\nquit\n")
    assert "Error: cannot open the new file w/out.bfloat.\n" in out
    assert "Error: cannot open the header file w/out.nii.\n" in out
    # a compressed file is replaced whole, as the directory allows: the old bytes are gone only once the new file is
    # complete
    assert "2 volume(s) of dimension 16 x 16 x 8 were written to file w/out.\n" in out
    for name in ("out.bfloat", "out.nii"):
        assert (kep.dir / "w" / name).read_bytes() == b"precious"
    assert nib.load(str(kep.dir / "w" / "out.nii.gz")).shape == (*SHAPE, 2)


def test_data_vanishing_between_the_loop_header_and_its_chunks(kep):
    # volumes of 64 x 64 x 16 samples: chunks of 20 volumes
    data = np.arange(64 * 64 * 16, dtype=np.int16).reshape((64, 64, 16)) % 300
    series = np.stack([data + 1000 * t for t in range(45)], axis=-1).astype(np.int16)
    write_xdisplay(kep.dir, "long.bshort", series, "i2")
    write_xdisplay(kep.dir, "gone.bshort", series[..., :25], "i2")
    write_xdisplay(kep.dir, "nohdr.bshort", series[..., :25], "i2")
    session = KepSession(kep.dir, str(KEP))
    session.send("read-loop long.bshort c\nwrite-float chunks.bfloat c\n")
    # cut between the header and the data: the first chunk is read, the second is not there
    with open(kep.path("long.bshort"), "r+b") as f:
        f.truncate(30 * 64 * 64 * 16 * 2)
    out = session.send("end-loop\n")
    head, tail = out.split("macro>> read long.bshort>20-39 c\n")
    assert "20 volumes of size 64 x 64 x 16 were read and stored in stack c\n" in head
    assert "20 volume(s) of dimension 64 x 64 x 16 were written to file chunks.\n" in head
    assert tail.startswith("Error reading file long.bshort.\n")
    assert "macro>> read long.bshort>40-44 c\nError reading file long.bshort.\n" in tail
    # the header itself gone between the loop's start and its end
    session.send("read-loop nohdr.bshort e\nshow-stacks\n")
    kep.path("nohdr.hdr").unlink()
    out, err, _ = session.finish("end-loop\nshow-stacks\nquit\n")
    assert "macro>> read nohdr.bshort>0-19 e\nError: cannot open xdisplay file nohdr.hdr.\n" in out
    assert stack_line(out, "e") is None and stack_line(out, "c")[:4] == ["64", "64", "16", "20"]
    assert err == ""
    values, _ = read_xdisplay(kep.dir, "chunks")
    np.testing.assert_array_equal(values[..., :20], series[..., :20])


@pytest.mark.skipif(sanitized(), reason="AddressSanitizer needs more address space than the limit allows")
def test_out_of_memory_is_an_error_that_keeps_the_session(kep):
    source(kep.dir, volumes=2)
    # 7 x 10^8 samples of 8 bytes in memory; the 1.4 GB file is sparse
    kep.path("huge.hdr").write_text("x 1000\ny 1000\nz 70\nt 10\nbyte-order 1\n")
    with open(kep.path("huge.bshort"), "wb") as f:
        f.truncate(1000 * 1000 * 70 * 10 * 2)
    # the same header over a file that holds one volume: found short before any memory is taken
    kep.path("claims.hdr").write_text("x 1000\ny 1000\nz 70\nt 10\nbyte-order 1\n")
    with open(kep.path("claims.bshort"), "wb") as f:
        f.truncate(1000 * 1000 * 70 * 2)

    def limit():
        resource.setrlimit(resource.RLIMIT_AS, (1 << 30, 1 << 30))
    r = subprocess.run([str(KEP)], input=b"read src.bfloat s\nread huge.bshort s\nread claims.bshort s\n"
                       b"read huge.bshort>3 one\nwrite-float after.bfloat s\nshow-stacks\nquit\n",
                       cwd=kep.dir, capture_output=True, preexec_fn=limit, timeout=300)
    out = r.stdout.decode()
    assert r.returncode == 1 and r.stderr == b"", r.stderr
    assert "Error: not enough memory to read 10 volumes of 1000 x 1000 x 70 from file huge.bshort.\n" in out
    assert "Error reading file claims.bshort.\n" in out
    # one volume (560 MB in memory) still fits under the 1 GB limit: held once, not twice, while it is read
    assert "1 volume of size 1000 x 1000 x 70 was read and stored in stack one\n" in out
    assert stack_line(out, "s")[:4] == ["16", "16", "8", "2"]
    assert "2 volume(s) of dimension 16 x 16 x 8 were written to file after.\n" in out
