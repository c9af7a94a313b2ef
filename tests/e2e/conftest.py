"""Shared helpers: run build/kep in a temporary directory; write and read its volume files."""
import os
import re
import select
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

import numpy as np
import pytest

SOURCE = Path(os.environ.get("KEP_SOURCE", Path(__file__).resolve().parents[2]))
KEP = Path(os.environ.get("KEP", SOURCE / "build" / "kep"))
XD_TYPES = {"bshort": "<i2", "bfloat": "<f4", "blong": "<i4", "ushort": "<u2"}


def command_words():
    """Every command word kep knows (commands, then macros), as it lists them."""
    out = subprocess.run([str(KEP), "--list-commands"], capture_output=True, check=True, timeout=60)
    return out.stdout.decode().split()


class Kep:
    """Runs kep in one working directory, either on standard input or on a command file."""

    def __init__(self, workdir: Path):
        self.dir = workdir

    def stdin(self, text, env=None, timeout=120):
        return self._run([str(KEP)], input=text.encode(), timeout=timeout, env=env)

    def script(self, text, *words, name="run.com", env=None, timeout=300):
        (self.dir / name).write_text(text)
        return self._run([str(KEP), name, *words], stdin=subprocess.DEVNULL, timeout=timeout, env=env)

    def _run(self, argv, env, **kw):
        env = {"KEP_HOME": str(SOURCE), **os.environ, **(env or {})}
        proc = subprocess.run(argv, cwd=self.dir, capture_output=True, env=env, **kw)
        proc.stdout, proc.stderr = (b.decode("utf-8", "replace") for b in (proc.stdout, proc.stderr))
        return proc

    def path(self, name):
        return self.dir / name

    def peak_memory(self, text, env=None):
        """(result, peak resident bytes) of kep on the command file `text`, by /usr/bin/time, whose
        child starts small (a child of this Python process would start with its memory counted)."""
        (self.dir / "mem.com").write_text(text)
        r = self._run(["/usr/bin/time", "-f", "%M", str(KEP), "mem.com"], stdin=subprocess.DEVNULL, env=env)
        return r, int(r.stderr.split()[-1]) * 1024


@pytest.fixture
def kep():
    """A fresh working directory an unprivileged user may enter too (pytest's are private)."""
    path = Path(tempfile.mkdtemp(prefix="kep-test-"))
    path.chmod(0o755)
    yield Kep(path)
    shutil.rmtree(path, ignore_errors=True)


def write_xdisplay(directory: Path, name: str, data, dtype="<f4", header_lines=(), byte_order=1, pairs=None):
    """Writes data (x, y, z, t) and its ".hdr"; complex data (or pairs=True) as (real, imag) pairs."""
    data = np.asarray(data)
    x, y, z, t = (*data.shape, 1)[:4]
    pairs = np.iscomplexobj(data) if pairs is None else pairs
    dt = np.dtype(dtype).newbyteorder("<" if byte_order == 1 else ">")
    if pairs:  # x runs over (real, imaginary) pairs
        data = np.stack([data.real, data.imag], axis=1).reshape((2 * x, y, z, t))
    (directory / name).write_bytes(data.astype(dt).tobytes(order="F"))
    stem = name.rsplit(".", 1)[0] if "." in Path(name).name else name
    lines = [f"x {x}", f"y {y}", f"z {z}", f"t {t}", f"byte-order {byte_order}", *header_lines]
    if pairs and not any(line.startswith("data-type") for line in header_lines):
        lines.append("data-type complex")
    (directory / (stem + ".hdr")).write_text("\n".join(lines) + "\n")


def write_nifti(path, data, zooms=(1.0, 1.0, 1.0), dtype=np.float32, affine=None):
    """A NIfTI file (type by its name) written by nibabel, axes scaled by `zooms` unless `affine`."""
    import nibabel as nib
    affine = np.diag([*zooms, 1.0]) if affine is None else affine
    nib.save(nib.Nifti1Image(np.asarray(data, dtype=dtype), affine), str(path))


def write_complex(path, data, resolution=(1.0, 1.0, 1.0)):
    """Writes data[t, z, y, x] as a ".bfloat": complex pairs when x is even, else real."""
    data = np.asarray(data).transpose(3, 2, 1, 0)
    if data.shape[0] % 2:
        assert np.all(np.imag(data) == 0), "complex files need an even x"
        data = np.real(data)
    write_xdisplay(path.parent, path.name, data, "<f4", [f"resolution {' '.join(map(str, resolution))}"],
                   pairs=np.iscomplexobj(data))


def read_header(path: Path):
    """The keyword lines of an xdisplay ".hdr" as a dict of word lists."""
    return {w[0]: w[1:] for w in (line.split("#")[0].split() for line in path.read_text().splitlines()) if w}


def read_xdisplay(directory: Path, stem: str, ext="bfloat"):
    """Reads an xdisplay file written by kep: (array x, y, z, t; header dict)."""
    fields = read_header(directory / (stem + ".hdr"))
    x, y, z, t = (int(fields[k][0]) for k in "xyzt")
    dt = np.dtype(XD_TYPES[ext]).newbyteorder("<" if fields["byte-order"][0] == "1" else ">")
    raw = np.frombuffer((directory / f"{stem}.{ext}").read_bytes(), dtype=dt)
    if fields.get("data-type", [""])[0] == "complex":
        pairs = raw.reshape((2 * x, y, z, t), order="F").astype(np.float64)
        return pairs[0::2] + 1j * pairs[1::2], fields
    return raw.reshape((x, y, z, t), order="F").astype(np.float64), fields


def read_complex(path, shape=None):
    """Reads a ".bfloat" written with complex output on as data[t, z, y, x]."""
    data, fields = read_xdisplay(path.parent, path.stem)
    assert shape is None or tuple(shape) == data.shape[::-1], (shape, data.shape)
    return data.transpose(3, 2, 1, 0)


def kep_values(kep, source, subset="", complex_output=False):
    """Reads `source` into kep and writes it back as floats: the values kep holds."""
    file_word = source + (">" + subset if subset else "")
    lines = ["set complex-output on"] if complex_output else []
    lines += [f"read {file_word} v", "write-float kepvalues.bfloat v", "quit"]
    (kep.dir / "kepvalues.bfloat").unlink(missing_ok=True)
    r = kep.stdin("\n".join(lines) + "\n")
    assert (kep.dir / "kepvalues.bfloat").exists(), r
    data, fields = read_xdisplay(kep.dir, "kepvalues")
    return data, fields, r


def stack_line(stdout: str, name: str):
    """The first show-stacks line of stack `name`: (x, y, z, t, type, low)."""
    for line in stdout.split("\n"):
        parts = re.split(r"[\r\t]+", line.replace("kep > ", ""))
        if parts and parts[0] == name:
            return parts[1:]
    return None


def random_stack(shape, seed, zeros=0.0):
    """Samples in (-1, 1) + i(-1, 1) of shape [t, z, y, x] (real when x is odd), a fraction `zeros` 0."""
    rng = np.random.default_rng(seed)
    real = rng.uniform(-1, 1, shape)
    data = (real + 1j * rng.uniform(-1, 1, shape) if shape[-1] % 2 == 0 else real + 0j).astype(np.complex64)
    if zeros:
        data[rng.uniform(0, 1, shape) < zeros] = 0
    return data


def run_ops(kep, inputs, commands, outputs, setup="", resolution=(1.0, 1.0, 1.0), script=False):
    """Reads `inputs` (name -> [t, z, y, x]), runs `commands`, returns (result, {output: array}); with
    `script` a command file, so that every error is fatal."""
    lines = ["set complex-output on"] + ([setup] if setup else [])
    for name, data in inputs.items():
        write_complex(kep.path(f"in_{name}.bfloat"), np.asarray(data, dtype=np.complex64), resolution)
        lines.append(f"read in_{name}.bfloat {name}")
    lines += [commands] + [f"write out_{name}.bfloat {name}" for name in outputs]
    text = "\n".join(lines) + "\n"
    result = kep.script(text) if script else kep.stdin(text + "quit\n")
    written = {}
    for name in outputs:
        assert kep.path(f"out_{name}.hdr").exists(), result
        written[name] = read_complex(kep.path(f"out_{name}.bfloat"))
    return result, written


def assert_close(actual, expected, rtol=2e-6, atol=2e-6):
    actual, expected = np.asarray(actual), np.asarray(expected)
    assert actual.shape == expected.shape, (actual.shape, expected.shape)
    np.testing.assert_allclose(actual.real, expected.real, rtol=rtol, atol=atol)
    np.testing.assert_allclose(actual.imag, expected.imag, rtol=rtol, atol=atol)


def assert_single_precision(actual, expected, factor=4.0):
    """Equal up to a few single-precision roundings of the largest value."""
    scale = max(float(np.max(np.abs(expected))), 1e-30)
    worst = float(np.max(np.abs(actual - expected)))
    assert worst <= factor * 1.2e-7 * scale * max(1.0, np.log2(expected.size)), (worst, scale)


class KepSession:
    """One kep process fed line by line, so that files can be changed between its commands."""

    def __init__(self, directory: Path, kep_binary: str, preexec_fn=None, argv_prefix=()):
        self.proc = subprocess.Popen([*argv_prefix, kep_binary], cwd=directory, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, preexec_fn=preexec_fn)
        self.prompts = 1  # kep prompts once before the first line and again after each line

    def send(self, text):
        """Sends lines and returns what kep printed once it has prompted after the last of them."""
        self.proc.stdin.write(text.encode())
        self.proc.stdin.flush()
        self.prompts += text.count("\n")
        out, end = b"", time.monotonic() + 60  # a kep that stops prompting fails, not hangs
        while out.count(b"kep > ") < self.prompts:
            ready = select.select([self.proc.stdout], [], [], max(0.0, end - time.monotonic()))[0]
            assert ready, ("no prompt", out)
            chunk = os.read(self.proc.stdout.fileno(), 65536)
            assert chunk, (out, self.proc.poll())
            out += chunk
        self.prompts = 0
        return out.decode()

    def finish(self, text="quit\n"):
        """Sends the last lines; returns (stdout, stderr, exit status)."""
        out, err = self.proc.communicate(text.encode(), timeout=300)
        return out.decode(), err.decode(), self.proc.returncode
