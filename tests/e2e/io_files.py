"""Makers and readers of volume files for the end-to-end tests of reading and writing."""
import re
from pathlib import Path

import numpy as np

XD_TYPES = {"bshort": "<i2", "bfloat": "<f4", "blong": "<i4", "ushort": "<u2"}


def write_xdisplay(directory: Path, name: str, data, dtype, header_lines=(), byte_order=1, pairs=False):
    """Writes data (x, y, z, t) as an xdisplay file `name` with its ".hdr" (x fastest)."""
    data = np.asarray(data)
    if data.ndim == 3:
        data = data[..., np.newaxis]
    x, y, z, t = data.shape
    dt = np.dtype(dtype).newbyteorder("<" if byte_order == 1 else ">")
    if pairs:
        flat = np.empty((2 * x, y, z, t), dtype=dt)
        flat[0::2] = data.real
        flat[1::2] = data.imag
        raw = flat.astype(dt).tobytes(order="F")
    else:
        raw = data.astype(dt).tobytes(order="F")
    (directory / name).write_bytes(raw)
    stem = name.rsplit(".", 1)[0] if "." in Path(name).name else name
    lines = [f"x {x}", f"y {y}", f"z {z}", f"t {t}", f"byte-order {byte_order}", *header_lines]
    (directory / (stem + ".hdr")).write_text("\n".join(lines) + "\n")


def read_header(path: Path):
    """The keyword lines of an xdisplay ".hdr" as a dict of word lists."""
    fields = {}
    for line in path.read_text().splitlines():
        line = line.split("#")[0].split()
        if line:
            fields[line[0]] = line[1:]
    return fields


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


def kep_values(kep, source, subset="", complex_output=False):
    """Reads `source` into kep and writes it back as floats: the values kep holds."""
    file_word = source + (">" + subset if subset else "")
    lines = []
    if complex_output:
        lines.append("set complex-output on")
    lines += [f"read {file_word} v", "write-float kepvalues.bfloat v", "quit"]
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


class KepSession:
    """One kep process fed line by line, so that files can be changed between its commands."""

    def __init__(self, directory: Path, kep_binary: str, preexec_fn=None, argv_prefix=()):
        import subprocess
        self.proc = subprocess.Popen([*argv_prefix, kep_binary], cwd=directory, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, preexec_fn=preexec_fn)
        self.prompts = 1  # kep prompts once before the first line and again after each line

    def send(self, text):
        """Sends lines and returns what kep printed once it has prompted after the last of them."""
        self.proc.stdin.write(text.encode())
        self.proc.stdin.flush()
        self.prompts += text.count("\n")
        out = b""
        while out.count(b"kep > ") < self.prompts:
            chunk = self.proc.stdout.read1(65536)
            assert chunk, (out, self.proc.poll())
            out += chunk
        self.prompts = 0
        return out.decode()

    def finish(self, text="quit\n"):
        """Sends the last lines; returns (stdout, stderr, exit status)."""
        out, err = self.proc.communicate(text.encode(), timeout=300)
        return out.decode(), err.decode(), self.proc.returncode
