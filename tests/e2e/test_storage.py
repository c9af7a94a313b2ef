"""Stacks of real samples keep no imaginary parts; nothing a user sees may depend on it (values and
bytes at the boundaries against numpy), and a read of real data takes its float size."""

import numpy as np
import pytest

from conftest import read_complex, write_nifti, write_xdisplay
from test_faults import sanitized
from test_transfilt import centred

SHAPE = (6, 5, 3, 4)  # x, y, z, t: even x, so that complex files are allowed


def data(seed, complex_=False):
    rng = np.random.default_rng(seed)
    values = rng.uniform(-2, 2, SHAPE)
    return values + 1j * rng.uniform(-2, 2, SHAPE) if complex_ else values


def run(kep, files, commands, outputs):
    """files: name -> (x, y, z, t) array; returns the `outputs` read back with complex output on."""
    for name, values in files.items():
        write_xdisplay(kep.dir, f"{name}.bfloat", values, pairs=np.iscomplexobj(values))
    lines = ["set complex-output on"] + [f"read {name}.bfloat {name}" for name in files] + commands
    lines += [f"write out_{name}.bfloat {name}" for name in outputs] + ["quit"]
    r = kep.script("\n".join(lines) + "\n")
    assert "Error" not in r.stdout + r.stderr, r  # `quit` itself ends with status 1
    return [read_complex(kep.path(f"out_{name}.bfloat")).transpose(3, 2, 1, 0) for name in outputs]


def test_real_and_complex_stacks_in_one_command(kep):
    # Magnitude files are read as polar stacks: constants touch their real parts only, and a complex partner brings its
    # imaginary parts to sums, averages and copies.
    r, c = data(1), data(2, complex_=True)
    both = np.concatenate([r, c], axis=3)
    # A copy onto one of its own sources gathers first, in either form.
    mean, joined, real_onto, mixed_onto, total, scaled = run(
        kep, {"r": r, "c": c},
        ["average m r c", "copy j r c", "copy q r", "copy q q>3 q>0", "copy k c", "copy k k>2 r>1", "add-stacks r c",
         "multiply-constant 3 r", "add r>0 c>1"], ["m", "j", "q", "k", "c", "r"])
    assert np.allclose(mean[..., 0], both.mean(axis=3), atol=1e-5)
    assert np.allclose(joined, both, atol=1e-5)
    assert np.allclose(real_onto, r[..., [3, 0]], atol=1e-5) and np.all(real_onto.imag == 0)
    assert np.allclose(mixed_onto, np.stack([c[..., 2], r[..., 1]], axis=3), atol=1e-5)
    expected = c + r
    expected[..., 1] += 3 * r[..., 0]
    assert np.allclose(total, expected, atol=1e-5)
    assert np.allclose(scaled, 3 * r, atol=1e-5) and np.all(scaled.imag == 0)


def test_transformed_real_stack_converted_back_to_real(kep):
    r = data(3)
    (result,) = run(kep, {"p": r}, ["transform-xyz p", "convert-to-real p", "add-constant 1 p"], ["p"])
    spectrum = r.transpose(3, 2, 1, 0)
    for axis in (3, 2, 1):
        spectrum = centred(spectrum, axis, -1, scale=True)
    assert np.allclose(result, spectrum.real.transpose(3, 2, 1, 0) + 1, atol=1e-5)
    assert np.all(result.imag == 0)


def test_non_polar_real_stack_takes_constants_on_both_parts(kep):
    # A complex file whose imaginary parts are +0 becomes real-only after an operation that keeps them so; it is still a
    # complex (non-polar) stack, so a constant reaches both parts.
    c = data(5) + 0j
    write_xdisplay(kep.dir, "c.bfloat", c, pairs=True)
    (result,) = run(kep, {}, ["read c.bfloat c", "mirror-left-right c", "mirror-left-right c", "add-constant 1 c"],
                    ["c"])
    assert np.allclose(result, c + 1 + 1j, atol=1e-6)


def test_zero_imaginary_parts_keep_their_sign(kep):
    # Parts of exactly +0 let a stack drop them; -0 would then come back as +0 in a complex file, so a stack holding -0
    # keeps its pairs.
    r = data(4).astype(np.float32)
    pairs = np.empty((2 * SHAPE[0],) + SHAPE[1:], np.float32)
    pairs[0::2], pairs[1::2] = r, -0.0
    (kep.dir / "m.bfloat").write_bytes(pairs.tobytes(order="F"))
    (kep.dir / "m.hdr").write_text("x 6\ny 5\nz 3\nt 4\nbyte-order 1\ndata-type complex\n")
    run(kep, {}, ["read m.bfloat m", "mirror-left-right m", "mirror-left-right m"], ["m"])
    raw = np.frombuffer(kep.path("out_m.bfloat").read_bytes(), np.float32)
    assert np.array_equal(raw[0::2], r.ravel(order="F")) and np.all(np.signbit(raw[1::2]))


@pytest.mark.skipif(sanitized(), reason="the sanitizer's shadow memory would be counted")
@pytest.mark.parametrize("name", ["big.nii", "big.bfloat"])
def test_reading_real_data_takes_about_its_float_size(kep, name):
    values = np.random.default_rng(6).uniform(0, 1000, (64, 64, 40, 50)).astype(np.float32)  # 33 MB
    if name.endswith(".nii"):
        write_nifti(kep.path(name), values)
    else:
        write_xdisplay(kep.dir, name, values)
    write_nifti(kep.path("small.nii"), values[:2, :2, :2, :2])
    r, baseline = kep.peak_memory("read small.nii s\nquit\n")
    r, peak = kep.peak_memory(f"read {name} s\nquit\n")
    assert "Error" not in r.stdout, r
    assert values.nbytes * 0.9 < peak - baseline < values.nbytes * 1.1

