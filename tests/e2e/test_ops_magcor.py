"""Baseline corrections and rescaling compared sample by sample with numpy."""
import numpy as np

from conftest import assert_close, random_stack, run_ops


def band(n, fraction, far_inclusive):
    c = np.arange(n)
    b = n // fraction
    return (c < b) | ((n - c <= b) if far_inclusive else (n - c < b))


def corrected(x, region):
    """Subtracts the mean of the nonzero samples in `region` from every nonzero sample."""
    nonzero = x != 0
    return np.where(nonzero, x - x[region & nonzero].mean(), 0)


def test_baseline_of_the_stack_and_of_each_volume_from_their_corners(kep):
    a = random_stack((2, 3, 32, 48), 1, zeros=0.1) + 0.5
    a[a.real == 0.5] = 0
    b = random_stack((3, 2, 32, 40), 2) + np.arange(3)[:, None, None, None]
    r, out = run_ops(kep, {"a": a, "b": b}, "baseline-correct a>1\nbaseline-correct-volumes b>0,2", ["a", "b"])
    region = band(32, 16, True)[:, None] & band(48, 16, True)[None, :]
    assert_close(out["a"], corrected(a.astype(np.complex128), np.broadcast_to(region, a.shape)), rtol=1e-5, atol=1e-6)
    region = band(32, 8, False)[:, None] & band(40, 8, False)[None, :]  # wider corners
    expected = b.astype(np.complex128)
    for t in (0, 2):
        expected[t] = corrected(expected[t], np.broadcast_to(region, b.shape[1:]))
    assert_close(out["b"], expected, rtol=1e-5, atol=1e-6)


def test_scale_and_normalize(kep):
    a = random_stack((4, 2, 3, 4), 3)
    b = random_stack((4, 2, 3, 4), 4)
    r, out = run_ops(kep, {"a": a, "b": b}, "scale 0 a>1,3\nnormalize 500 b", ["a", "b"])
    x, y = a.astype(np.complex128), b.astype(np.complex128)
    fa = np.float32(32767) / np.float32(np.abs(x[[1, 3]]).max())
    fb = np.float32(500) / np.float32(np.abs(y).mean())
    assert r.stdout.count("Scaling factor = ") == 2
    ex = x.copy()
    ex[[1, 3]] *= fa
    assert_close(out["a"], ex, rtol=1e-5)
    assert_close(out["b"], y * fb, rtol=1e-5)


def test_overlay_voxels_decide_the_factor(kep):
    a = random_stack((2, 3, 4, 4), 5)
    voxels = [(1, 2, 0), (3, 0, 2), (0, 3, 1)]
    kep.path("roi.ovl").write_text("".join(f"{x} {y} {z}\n" for x, y, z in voxels))
    r, out = run_ops(kep, {"a": a}, "read roi.ovl\nnormalize 1 a", ["a"])
    x = a.astype(np.complex128)
    mean = np.mean([np.abs(x[t, z, y, xx]) for t in range(2) for xx, y, z in voxels])
    assert_close(out["a"], x * (1 / np.float32(mean)), rtol=1e-5)
