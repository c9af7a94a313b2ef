"""Runs image operations on stacks read from complex ".bfloat" files and reads every written stack back."""
import numpy as np

from fft_files import read_complex, write_complex
from io_files import read_header


def run_ops(kep, inputs, commands, outputs, setup=""):
    """`inputs`: stack name -> complex array [t, z, y, x] (x even); `commands`: the lines to run;
    `outputs`: stack names to write. Returns (result, {name: array [t, z, y, x]})."""
    lines = ["set complex-output on", setup] if setup else ["set complex-output on"]
    for name, data in inputs.items():
        write_complex(kep.path(f"in_{name}.bfloat"), np.asarray(data, dtype=np.complex64))
        lines.append(f"read in_{name}.bfloat {name}")
    lines.append(commands)
    for name in outputs:
        lines.append(f"write out_{name}.bfloat {name}")
    result = kep.stdin("\n".join(lines) + "\nquit\n")
    written = {}
    for name in outputs:
        header = kep.path(f"out_{name}.hdr")
        assert header.exists(), result
        fields = read_header(header)
        shape = tuple(int(fields[k][0]) for k in "tzyx")
        written[name] = read_complex(kep.path(f"out_{name}.bfloat"), shape)
    return result, written


def random_stack(shape, seed, zeros=0.0):
    """Complex samples in (-1, 1) + i(-1, 1); a fraction `zeros` of them exactly 0."""
    rng = np.random.default_rng(seed)
    data = (rng.uniform(-1, 1, shape) + 1j * rng.uniform(-1, 1, shape)).astype(np.complex64)
    if zeros:
        data[rng.uniform(0, 1, shape) < zeros] = 0
    return data


def assert_close(actual, expected, rtol=2e-6, atol=2e-6):
    actual = np.asarray(actual)
    expected = np.asarray(expected)
    assert actual.shape == expected.shape, (actual.shape, expected.shape)
    np.testing.assert_allclose(actual.real, expected.real, rtol=rtol, atol=atol)
    np.testing.assert_allclose(actual.imag, expected.imag, rtol=rtol, atol=atol)
