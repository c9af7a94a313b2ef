"""Motion correction, down-sampling, shifts, magnitude windows, scatter plots against scipy/numpy."""
import re

import nibabel as nib
import numpy as np
import pytest
from scipy import ndimage
from scipy.spatial.transform import Rotation
from conftest import assert_close, random_stack, read_complex, read_header, run_ops, write_complex


SCAN = "/usr/lib/python3/dist-packages/nipy/testing/anatomical.nii.gz"


def scan():
    """The anatomical scan zero-padded so that it moves inside its field of view, and its affine."""
    img = nib.load(SCAN)
    pad = ((6, 7), (6, 6), (6, 6))  # x even, for complex files
    data = np.pad(np.asarray(img.dataobj, dtype=np.float64), pad)
    affine = img.affine.copy()
    affine[:3, 3] -= affine[:3, :3] @ np.array([p[0] for p in pad], float)
    return data, affine


def moved(data, affine, t, angles):
    """The volume in which a point at p mm from the centre of `data` sits at R p + t."""
    A = affine[:3, :3]
    Ai = np.linalg.inv(A)
    R = Rotation.from_euler("xyz", angles, degrees=True).as_matrix()
    c = (np.array(data.shape) - 1) / 2.0
    M = Ai @ R.T @ A
    offset = c - M @ c - Ai @ R.T @ np.asarray(t, float)
    if np.iscomplexobj(data):
        return (ndimage.affine_transform(data.real, M, offset=offset, order=3)
                + 1j * ndimage.affine_transform(data.imag, M, offset=offset, order=3))
    return ndimage.affine_transform(data, M, offset=offset, order=3)


def motion_table(path):
    lines = path.read_text().split("\n")
    assert lines[0].split() == ["translation-x", "translation-y", "translation-z",
                                "rotation-x", "rotation-y", "rotation-z"]
    return np.array([[float(v) for v in line.split()] for line in lines[1:] if line])


def test_register_recovers_rigid_motion_of_a_scan_in_world_axes(kep):
    data, affine = scan()
    rng = np.random.default_rng(3)
    truth = [np.zeros(6)] + [np.concatenate([rng.uniform(-3, 3, 3), rng.uniform(-3, 3, 3)]) for _ in range(3)]
    noise = 0.01 * data.max()
    series = [data] + [moved(data, affine, p[:3], p[3:]) + rng.normal(0, noise, data.shape) for p in truth[1:]]
    img = nib.Nifti1Image(np.stack(series, -1).astype(np.float32), affine)
    img.set_qform(affine, code=1)  # world axes: x runs against i
    nib.save(img, kep.path("series.nii"))
    r = kep.script("read series.nii m\nregister m\nshow registration-translations\nwrite-float out.nii m\n")
    assert "Error" not in r.stderr, r
    estimates = motion_table(kep.path("m.motion"))
    error = estimates - np.array(truth)
    assert np.sqrt(np.mean(error[:, :3] ** 2)) < 0.1 and np.sqrt(np.mean(error[:, 3:] ** 2)) < 0.1, error
    assert len(re.findall(r"^register m volume \d: translations", r.stdout, re.M)) == 4
    shown = re.search(r"translations\s+(\S+) (\S+) (\S+)\n", r.stdout.split("show registration-translations")[1])
    np.testing.assert_allclose([float(v) for v in shown.groups()], estimates[-1, :3], atol=1e-3)
    # The corrected volumes match the first one to about the noise, where the moved data covered it.
    out = np.asarray(nib.load(kep.path("out.nii")).dataobj)
    inner = (slice(10, -10),) * 3
    for k in range(1, 4):
        assert np.sqrt(np.mean((out[..., k][inner] - data[inner]) ** 2)) < 1.5 * noise, k


def test_register_resamples_complex_samples_as_complex(kep):
    data, _ = scan()
    data = ndimage.gaussian_filter(data, 1.0)[:44:2, ::2, ::2]
    i, j, _ = np.indices(data.shape)
    reference = data * np.exp(1j * (0.05 * i - 0.03 * j))
    resolution = (2.5, 2.0, 3.0)
    shifted = moved(reference, np.diag(resolution + (1.0,)), (1.7, -2.1, 0.8), (1.5, -1.0, 2.0))
    stack = np.stack([reference, shifted]).transpose(0, 3, 2, 1).astype(np.complex64)
    write_complex(kep.path("in.bfloat"), stack, resolution)
    r = kep.script("set complex-output on\nread in.bfloat c\nregister c\nwrite out.bfloat c\n")
    np.testing.assert_allclose(motion_table(kep.path("c.motion"))[1], [1.7, -2.1, 0.8, 1.5, -1.0, 2.0], atol=0.05)
    out = read_complex(kep.path("out.bfloat"), stack.shape)[1].transpose(2, 1, 0)
    inner = (slice(4, -4), slice(4, -4), slice(3, -3))
    assert np.sqrt(np.mean(np.abs(out[inner] - reference[inner]) ** 2)) < 0.1 * np.abs(reference[inner]).std(), r


def test_deck_of_cards_recovers_one_slice_moved_alone(kep):
    data, _ = scan()
    k, t, angle = 14, np.array([1.4, -2.2]), 2.5
    second = data.copy()
    theta = np.deg2rad(angle)
    R = np.array([[np.cos(theta), -np.sin(theta)], [np.sin(theta), np.cos(theta)]])
    c = (np.array(data.shape[:2]) - 1) / 2
    second[:, :, k] = ndimage.affine_transform(data[:, :, k], R.T, offset=c - R.T @ c - R.T @ t / 2.0, order=3)
    nib.save(nib.Nifti1Image(np.stack([data, second], -1).astype(np.float32), np.diag([2, 2, 2, 1.0])),
             kep.path("deck.nii"))
    r = kep.script("read deck.nii m\nset registration-type deck-of-cards\nregister m\nwrite-float out.nii m\n")
    mean = motion_table(kep.path("m.motion"))[1]
    nz = data.shape[2]
    np.testing.assert_allclose(mean, [t[0] / nz, t[1] / nz, 0, 0, 0, angle / nz], atol=0.05 / nz)
    out = np.asarray(nib.load(kep.path("out.nii")).dataobj)[..., 1]
    others = [z for z in range(nz) if z != k]
    np.testing.assert_allclose(out[:, :, others], data[:, :, others], atol=1e-6 * data.max())
    inner = (slice(10, -10), slice(10, -10), k)
    before = np.sqrt(np.mean((second[inner] - data[inner]) ** 2))
    after = np.sqrt(np.mean((out[inner] - data[inner]) ** 2))
    assert after < 0.2 * before, (before, after, r)


def fourier_shift(a, d):
    """numpy's Fourier shift of the last three axes (x last) by d = (dx, dy, dz) voxels."""
    f = np.fft.fftn(a, axes=(1, 2, 3))
    fz, fy, fx = (np.fft.fftfreq(n)[(slice(None),) + (None,) * (2 - i)] for i, n in enumerate(a.shape[1:]))
    return np.fft.ifftn(f * np.exp(-2j * np.pi * (fx * d[0] + fy * d[1] + fz * d[2])), axes=(1, 2, 3))


@pytest.mark.parametrize("shift", [(2, -3, 1), (13, 0, -6), (0.3, 1.7, -0.45), (-2.5, 0.0, 4.25)])
def test_shift_pixels_rolls_whole_voxels_and_fourier_shifts_fractions(kep, shift):
    data = random_stack((2, 5, 7, 6), seed=4)
    r, out = run_ops(kep, {"a": data}, f"shift-pixels {shift[0]} {shift[1]} {shift[2]} a", ["a"])
    if all(float(s).is_integer() for s in shift):
        expected = np.roll(data, (shift[2], shift[1], shift[0]), axis=(1, 2, 3))
        np.testing.assert_array_equal(out["a"], expected.astype(np.complex128))
    else:
        assert_close(out["a"], fourier_shift(data.astype(np.complex128), shift), rtol=0, atol=1e-5)


def test_shift_pixels_keeps_a_real_volume_real(kep):
    data = np.random.default_rng(5).uniform(1, 2, (1, 3, 5, 7))
    write_complex(kep.path("in.bfloat"), data.astype(np.complex64))
    kep.script("read in.bfloat a\nconvert-to-real a\nshift-pixels 0.5 0.25 0 a\nwrite-float out.bfloat a\n")
    out = np.fromfile(kep.path("out.bfloat"), "<f4").reshape(data.shape)
    np.testing.assert_allclose(out, fourier_shift(data, (0.5, 0.25, 0)).real, atol=1e-5)


def test_down_sample_averages_blocks_and_keeps_world_positions(kep):
    data = random_stack((2, 3, 9, 11), seed=6)[..., :10]
    write_complex(kep.path("in.bfloat"), data, (0.7, 1.3, 2.9))
    kep.path("in.hdr").write_text(kep.path("in.hdr").read_text() + "origin 10 -20 5\n")
    r = kep.script("set complex-output on\nread in.bfloat a\ndown-sample a\nwrite out.bfloat a\n")
    expected = data[:, :, :8, :10].reshape(2, 3, 4, 2, 5, 2).mean(axis=(3, 5))
    assert_close(read_complex(kep.path("out.bfloat"), expected.shape), expected)
    fields = read_header(kep.path("out.hdr"))
    np.testing.assert_allclose([float(v) for v in fields["resolution"][:3]], [1.4, 2.6, 2.9], rtol=1e-6)
    # New voxel 0 sits at the centre of old voxels 0 and 1.
    np.testing.assert_allclose([float(v) for v in fields["origin"][:3]], [10.35, -19.35, 5], rtol=1e-6)
    assert "down-sampled from 9 x 10 to 4 x 5" in r.stdout


def percentile_window(m, lo, hi):
    return np.where(m == 0, 0, np.clip((m - lo) / (hi - lo) * 1000, 0, 1000))


def test_magnitude_windows_map_percentiles_and_keep_phase(kep):
    a = random_stack((2, 3, 6, 8), seed=7, zeros=0.2) * np.linspace(1, 50, 2)[:, None, None, None]
    r, out = run_ops(kep, {"a": a, "b": a}, "magnitude-window a\nmagnitude-window-together b", ["a", "b"])
    m = np.abs(a.astype(np.complex64).astype(np.complex128))
    printed = [[float(v) for v in w] for w in re.findall(r"magnitudes (\S+) to (\S+) \(1st", r.stdout)]
    for t in range(2):
        nz = m[t][m[t] > 0]
        lo, hi = np.percentile(nz, 1), np.percentile(nz, 99)
        np.testing.assert_allclose(printed[t], [lo, hi], rtol=1e-5)
        assert_close(np.abs(out["a"][t]), percentile_window(m[t], lo, hi), rtol=1e-4, atol=1e-3)
    nz = m[m > 0]
    lo, hi = np.percentile(nz, 1), np.percentile(nz, 99)
    assert_close(np.abs(out["b"]), percentile_window(m, lo, hi), rtol=1e-4, atol=1e-3)
    keep = np.abs(out["b"]) > 1e-3
    np.testing.assert_allclose(np.angle(out["b"][keep]), np.angle(a[keep]), atol=1e-4)


@pytest.mark.parametrize("with_overlay", [False, True])
def test_scatter_plot_writes_pairs_with_correlation_and_line(kep, with_overlay):
    rng = np.random.default_rng(8)
    x = rng.uniform(0, 10, (1, 3, 5, 7))
    y = 0.7 * x + rng.normal(0, 1.0, x.shape) + 3
    write_complex(kep.path("x.bfloat"), x.astype(np.complex64))
    write_complex(kep.path("y.bfloat"), y.astype(np.complex64))
    setup = ""
    voxels = [(i, j, k) for k in range(3) for j in range(5) for i in range(7)]
    if with_overlay:
        voxels = [(1, 2, 0), (6, 4, 2), (3, 0, 1), (2, 2, 2), (5, 1, 0)]
        kep.path("roi.ovl").write_text("".join(f"{i} {j} {k}\n" for i, j, k in voxels))
        setup = "read roi.ovl\n"
    r = kep.script(setup + "read x.bfloat x\nread y.bfloat y\nscatter-plot pairs x y\n")
    px = np.array([x[0, k, j, i] for i, j, k in voxels])
    py = np.array([y[0, k, j, i] for i, j, k in voxels])
    lines = kep.path("pairs.dat").read_text().split("\n")
    assert lines[0] == "x y"
    np.testing.assert_allclose(np.loadtxt(lines[1:]), np.stack([px, py], 1), rtol=1e-5)
    slope, intercept = np.polyfit(px, py, 1)
    got = re.search(r"correlation coefficient = (\S+)\nleast-squares line: y = (\S+) \+ (\S+) x", r.stdout)
    np.testing.assert_allclose([float(v) for v in got.groups()],
                               [np.corrcoef(px, py)[0, 1], intercept, slope], rtol=1e-4)


BAD = [
    ("register", "register small", "too small to register"),
    ("shift by nan", "shift-pixels nan 0 0 a", "must be finite numbers"),
    ("shift by inf", "shift-pixels 0 inf 0 a", "must be finite numbers"),
    ("down-sample a line", "down-sample line", "at least 2 x 2 are needed"),
    ("window of zeros", "magnitude-window zero", "no spread of non-zero magnitudes"),
    ("window together of zeros", "magnitude-window-together zero", "no spread of non-zero magnitudes"),
    ("scatter of one volume", "scatter-plot s a>0", "two volumes are needed"),
    ("scatter of mismatched stacks", "scatter-plot s a>0 small>0", "have different dimensions"),
    ("scatter with an overlay outside", "read far.ovl\nscatter-plot s a>0 a>1", "lies outside"),
]


@pytest.mark.parametrize("label, command, message", BAD, ids=[b[0] for b in BAD])
def test_bad_arguments_and_stacks_report_and_change_nothing(kep, label, command, message):
    stacks = {"a": random_stack((2, 3, 5, 6), seed=9), "small": random_stack((2, 1, 3, 4), seed=10),
              "line": random_stack((1, 2, 1, 6), seed=11), "zero": np.zeros((1, 2, 3, 4), np.complex64)}
    kep.path("far.ovl").write_text("1 1 1\n40 1 1\n")
    r, out = run_ops(kep, stacks, command, list(stacks))
    assert message in r.stdout + r.stderr, r
    assert "Fatal" not in r.stderr and "Sanitizer" not in r.stderr, r
    for name, data in stacks.items():
        np.testing.assert_array_equal(out[name], data.astype(np.complex128), err_msg=name)
