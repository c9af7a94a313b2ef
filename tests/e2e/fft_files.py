"""Complex xdisplay float files for the transform, statistics and map tests."""
import numpy as np


def write_complex(path, data, resolution=(1.0, 1.0, 1.0)):
    """Writes data[t, z, y, x] as a complex ".bfloat" with its ".hdr".

    Complex files need an even x, so data with an odd x must be real and go to a real file
    (read as samples with imaginary part 0)."""
    nt, nz, ny, nx = data.shape
    header = f"x {nx}\ny {ny}\nz {nz}\nt {nt}\nbyte-order 1\n"
    if nx % 2:
        assert np.all(np.imag(data) == 0), "complex files need an even x"
        np.real(data).astype("<f4").tofile(str(path))
    else:
        pairs = np.empty(data.shape + (2,), dtype="<f4")
        pairs[..., 0] = data.real
        pairs[..., 1] = data.imag
        pairs.tofile(str(path))
        header += "data-type complex\n"
    header += f"resolution {resolution[0]} {resolution[1]} {resolution[2]}\n"
    path.with_suffix(".hdr").write_text(header)


def read_complex(path, shape):
    """Reads a complex ".bfloat" written with complex output on."""
    pairs = np.fromfile(str(path), dtype="<f4").reshape(tuple(shape) + (2,))
    return pairs[..., 0].astype(np.float64) + 1j * pairs[..., 1].astype(np.float64)


def random_complex(shape, seed):
    """Random samples in [-1, 1]; real when x is odd (see write_complex)."""
    rng = np.random.default_rng(seed)
    imag = rng.uniform(-1, 1, shape) if shape[-1] % 2 == 0 else 0
    return (rng.uniform(-1, 1, shape) + 1j * imag).astype(np.complex64)


def run_on_stack(kep, data, commands, resolution=(1.0, 1.0, 1.0), out_shape=None, stack="a", setup="",
                 interactive=False):
    """Reads `data` into `stack`, runs the command lines and returns (result, written samples).

    A command file makes every error fatal; `interactive` feeds the lines on standard input instead."""
    write_complex(kep.path("in.bfloat"), data, resolution)
    script = f"set complex-output on\n{setup}read in.bfloat {stack}\n{commands}\nwrite out.bfloat {stack}\n"
    result = kep.stdin(script) if interactive else kep.script(script)
    assert result.returncode == 1, result  # the process ends with its input
    written = read_complex(kep.path("out.bfloat"), out_shape or data.shape)
    return result, written


def assert_single_precision(actual, expected, factor=4.0):
    """Equal up to a few single-precision roundings of the largest value."""
    scale = max(float(np.max(np.abs(expected))), 1e-30)
    worst = float(np.max(np.abs(actual - expected)))
    assert worst <= factor * 1.2e-7 * scale * max(1.0, np.log2(expected.size)), (worst, scale)


def skip_without_volume_files(kep):
    """These tests move stacks through files: skip them while `read` or `write` is not in this build."""
    import pytest
    write_complex(kep.path("probe.bfloat"), np.zeros((1, 1, 1, 2), np.complex64))
    result = kep.stdin("read probe.bfloat p\nwrite probe2.bfloat p\n")
    if "is not available in this build" in result.stderr:
        pytest.skip("reading or writing volume files is not available in this build")


def skip_without_overlay_files(kep):
    """Skips a test while overlay files cannot be read in this build."""
    import pytest
    kep.path("probe.ovl").write_text("0 0 0\n")
    result = kep.stdin("read probe.ovl\n")
    if "is not available in this build" in result.stderr:
        pytest.skip("reading overlay files is not available in this build")
