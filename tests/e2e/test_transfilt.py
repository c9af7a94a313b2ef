"""Fourier transforms and k-space filters against numpy on complex stacks read from files."""
import numpy as np
import pytest

from conftest import assert_single_precision, random_stack, run_ops, write_complex

AXIS = {"x": 3, "y": 2, "z": 1, "t": 0}


def centred(data, axis, direction, scale):
    """Transform with zero frequency (and position) at index n/2; forward divided by n when `scale`."""
    n = data.shape[axis]
    shifted = np.fft.ifftshift(data.astype(np.complex128), axes=axis)
    if direction < 0:
        out = np.fft.fft(shifted, axis=axis)
        if scale:
            out /= n
    else:
        out = np.fft.ifft(shifted, axis=axis) * n
    return np.fft.fftshift(out, axes=axis)


COMMANDS = {
    "transform": ("xy", -1), "transform-x": ("x", -1), "transform-y": ("y", -1),
    "transform-xyz": ("xyz", -1), "inverse-transform": ("xy", 1), "inverse-transform-x": ("x", 1),
    "inverse-transform-y": ("y", 1), "inverse-transform-xyz": ("xyz", 1),
}
# (t, z, y, x): even, odd and prime lengths on every axis, and a length of 1.
SHAPES = [(2, 4, 6, 8), (2, 5, 9, 7), (1, 3, 11, 13), (3, 2, 1, 5)]


@pytest.mark.parametrize("shape", SHAPES, ids=lambda s: "x".join(map(str, s)))
def test_every_transform_command_matches_numpy(kep, shape):
    data = random_stack(shape, seed=sum(shape))
    for command, (axes, direction) in COMMANDS.items():
        written = run_ops(kep, {"a": data}, f"{command} a", ["a"], script=True)[1]["a"]
        expected = data.astype(np.complex128)
        for axis in axes:
            expected = centred(expected, AXIS[axis], direction, scale=True)
        assert_single_precision(written, expected)


@pytest.mark.parametrize("nt", [8, 7, 13])
def test_time_transform_is_centred_and_unscaled(kep, nt):
    data = random_stack((nt, 2, 3, 4), seed=nt)
    written = run_ops(kep, {"a": data}, "transform-time a", ["a"], script=True)[1]["a"]
    assert_single_precision(written, centred(data, 0, -1, scale=False))


def test_time_transform_refuses_stacks_of_different_sizes(kep):
    data = random_stack((4, 1, 4, 4), seed=3)
    write_complex(kep.path("other.bfloat"), random_stack((4, 1, 2, 4), seed=4))
    result, written = run_ops(kep, {"a": data}, "read other.bfloat b\ntransform-time a b", ["a"])
    assert "Error: Stacks a and b have different dimensions.\n" in result.stderr
    assert_single_precision(written["a"], data.astype(np.complex128))


def kspace_weights(shape, fwhm, resolution, ndim):
    """The Fourier transform of a Gaussian of `fwhm` mm at frequencies k / (n r), k half a sample off centre."""
    sigma = fwhm / (2 * np.sqrt(2 * np.log(2)))
    w = np.ones(shape[1:])
    for axis, r in zip((3, 2, 1)[:ndim], resolution):
        n = shape[axis]
        k = np.arange(n) - n // 2 + 0.5
        w = w * np.exp(-2 * (np.pi * sigma * k / (n * r)) ** 2).reshape([n if a == axis else 1 for a in (1, 2, 3)])
    return w


@pytest.mark.parametrize("ndim", [2, 3])
def test_smoothing_multiplies_kspace_by_a_gaussian(kep, ndim):
    shape, resolution, fwhm = (3, 5, 12, 9), (1.3, 2.2, 3.1), 4.7
    data = random_stack(shape, seed=ndim)
    result, out = run_ops(kep, {"a": data}, f"smooth-{ndim}d {fwhm} a>1,2", ["a"], resolution=resolution, script=True)
    k = data.astype(np.complex128)
    axes = (3, 2, 1)[:ndim]
    for axis in axes:
        k = centred(k, axis, 1, scale=True)
    k[1:] *= kspace_weights(shape, fwhm, resolution, ndim)
    for axis in axes:
        k = centred(k, axis, -1, scale=True)
    # kep takes the FWHM as 2.355 sigma: weights within 2e-3 of the exact Gaussian's
    assert_single_precision(out["a"], k, factor=2e-3 / 1.2e-7 / np.log2(k.size))
    assert "percent done" not in result.stdout


def test_smoothing_reports_each_quarter_of_a_long_list(kep):
    result, _ = run_ops(kep, {"a": random_stack((20, 1, 4, 4), seed=1)}, "smooth-3d 2 a", ["a"], script=True)
    assert [line for line in result.stdout.splitlines() if "percent" in line] == [
        "25 percent done", "50 percent done", "75 percent done"]


def hamming(n):
    return 0.54 - 0.46 * np.cos(2 * np.pi * np.arange(n) / (n - 1))


@pytest.mark.parametrize("command", ["hamming-window", "hamming-window-xyz"])
def test_hamming_window_matches_numpy(kep, command):
    data, one = random_stack((2, 4, 6, 7), seed=5), np.ones((1, 1, 3, 1), np.complex64)
    out = run_ops(kep, {"a": data, "one": one}, f"{command} a>0\n{command} one", ["a", "one"], script=True)[1]
    wz = hamming(4) if command.endswith("xyz") else np.ones(4)  # a>0: the whole stack
    assert_single_precision(out["a"], data * wz[:, None, None] * hamming(6)[None, :, None] * hamming(7)[None, None, :])
    assert np.all(np.isnan(out["one"].real))  # a line of one sample: 0 / 0


def test_exponential_weighting_of_listed_volumes(kep):
    shape, tau = (3, 2, 3, 10), 4.0
    data = random_stack(shape, seed=6)
    written = run_ops(kep, {"a": data}, f"exp-filter-1d {tau} a>0,2", ["a"], script=True)[1]["a"]
    x = np.arange(10)
    expected = data.astype(np.complex128)
    expected[[0, 2]] *= np.exp(x / tau) * np.exp(-x ** 2 / tau ** 2)
    assert_single_precision(written, expected)


def edge_reference(volume, following=None):
    """Sobel magnitude over the sum of amplitudes, -1 and n-1 wrapping to 0; past the last row of the
    last slice lies the following volume."""
    amp = np.abs(volume.astype(np.complex128))
    nz, ny, nx = amp.shape
    flat = amp.ravel()
    if following is not None:
        flat = np.concatenate([flat, np.abs(following.astype(np.complex128)).ravel()])
    kernel = np.array([[1, 2, 1], [0, 0, 0], [-1, -2, -1]])
    out = np.zeros(amp.shape)

    def wrap(i, n):
        i = n - 1 if i < 0 else i
        return 0 if i == n - 1 else i

    for z in range(nz):
        for y in range(ny):
            for x in range(nx):
                gx = gy = s = 0.0
                for a in range(3):
                    for b in range(3):
                        index = z * nx * ny + wrap(y + b - 1, ny) * nx + wrap(x + a - 1, nx)
                        value = flat[index] if index < flat.size else 0.0
                        gx += kernel[a][b] * value
                        gy += kernel[b][a] * value
                        s += value
                out[z, y, x] = np.hypot(gx, gy) / s if s != 0 else 0.0
    return out


def test_edge_filter_matches_its_wrap_rule(kep):
    data = random_stack((2, 2, 5, 6), seed=8) + 2
    written = run_ops(kep, {"a": data}, "edge-filter a", ["a"], script=True)[1]["a"]
    expected = np.stack([edge_reference(data[0], data[1]), edge_reference(data[1])])
    assert_single_precision(written, expected.astype(complex), factor=16)

