"""Histograms, overlap and parametric maps against numpy on stacks read from files."""
import re

import numpy as np
import pytest

from conftest import random_stack, read_complex, write_complex


def overlay_case(kep, shape, seed):
    rng = np.random.default_rng(seed)
    data = (random_stack(shape, seed) * 3).astype(np.complex64)
    nt, nz, ny, nx = shape
    cells = [(x, y, z) for z in range(nz) for y in range(ny) for x in range(nx)]
    chosen = [cells[i] for i in sorted(rng.choice(len(cells), size=len(cells) // 3, replace=False))]
    kep.path("roi.ovl").write_text("".join(f"{x} {y} {z}\n" for x, y, z in chosen))
    write_complex(kep.path("in.bfloat"), data)
    return data, chosen


def masked_amplitudes(data, voxels):
    amp = np.abs(data.astype(np.complex64)).astype(np.float32)  # amplitudes as kep rounds them
    return np.stack([amp[:, z, y, x] for x, y, z in voxels], axis=1)  # [t, voxel]


def test_histogram_matches_numpy(kep):
    data, voxels = overlay_case(kep, (3, 2, 5, 6), seed=1)
    start, end, size = 0.25, 3.75, 0.5
    result = kep.script(f"read roi.ovl\nset histogram {start} {end} {size}\nread in.bfloat a\nhistogram a>0,2\n")
    amp = masked_amplitudes(data, voxels)[[0, 2]].ravel()
    nbins = int(np.ceil((end - start) / size))
    position = (amp - np.float32(start)) / np.float32(size)
    bins = np.clip(np.where(position > 0, np.trunc(position), 0), 0, nbins - 1).astype(int)
    counts = np.bincount(bins, minlength=nbins)
    centres = [np.float32(start) + np.float32(size) / 2 + np.float32(i) * np.float32(size) for i in range(nbins)]
    expected = "x y\n" + "".join("%g %d\n" % (float(c), n) for c, n in zip(centres, counts))
    assert kep.path("hist.dat").read_text() == expected
    assert f"Output of {amp.size} entries to file hist.dat\n" in result.stdout
    printed = float(re.search(r"Average value = (\S+)\n", result.stdout).group(1))
    assert printed == pytest.approx(np.dot(np.float64(centres), counts) / counts.sum(), rel=1e-5)


def test_weighted_histogram_holds_overlay_means(kep):
    data, voxels = overlay_case(kep, (5, 2, 4, 4), seed=2)
    result = kep.script("read roi.ovl\nread in.bfloat a\nweighted-histogram a\n")
    means = masked_amplitudes(data, voxels).astype(np.float64).mean(axis=1)
    assert "Allocate histogram: 0.5 5.5 1 (5 bins)\n" in result.stdout
    assert f"# voxels = {len(voxels)}\n" in result.stdout
    lines = kep.path("hist.dat").read_text().splitlines()
    assert lines[0] == "x y"
    np.testing.assert_allclose(np.loadtxt(lines[1:]), np.c_[np.arange(1, 6), means], rtol=0, atol=2e-6)
    average = float(re.search(r"Average value = (\S+)\n", result.stdout).group(1))
    assert average == pytest.approx(np.dot(np.arange(1, 6), means) / means.sum(), rel=1e-5)


def test_histogram_of_an_empty_overlay(kep):
    write_complex(kep.path("in.bfloat"), random_stack((1, 1, 2, 2), 3))
    result = kep.stdin("set histogram 0 2 1\nread in.bfloat a\nhistogram a\n")
    assert "Output of 0 entries to file hist.dat\nHistogram is empty!\n" in result.stdout
    assert kep.path("hist.dat").read_text() == "x y\n0.5 0\n1.5 0\n"


def positions(shape, resolution, origin):
    nz, ny, nx = shape
    z, y, x = np.meshgrid(np.arange(nz), np.arange(ny), np.arange(nx), indexing="ij")
    return np.stack([x * resolution[0] + origin[0], y * resolution[1] + origin[1],
                     z * resolution[2] + origin[2]], axis=-1).reshape(-1, 3)


def test_overlap_of_two_sparse_volumes_matches_numpy(kep):
    rng = np.random.default_rng(4)
    shape = (3, 6, 5)
    vols = []
    for _ in range(2):
        v = np.zeros(shape, np.complex64)
        v.ravel()[rng.choice(v.size, 12, replace=False)] = rng.uniform(0.5, 2, 12)
        vols.append(v)
    write_complex(kep.path("one.bfloat"), vols[0][None], resolution=(2.0, 2.0, 3.0))
    write_complex(kep.path("two.bfloat"), vols[1][None], resolution=(2.0, 2.0, 3.0))
    kep.path("two.hdr").write_text(kep.path("two.hdr").read_text() + "origin 1 -2 3\n")
    fwhm = 6.0
    result = kep.script(f"read one.bfloat a\nread two.bfloat b\ncalculate-overlay-overlap {fwhm} a b\n")
    sigma = fwhm * 0.425
    p1 = positions(shape, (2, 2, 3), (0, 0, 0))
    p2 = positions(shape, (2, 2, 3), (1, -2, 3))
    a1, a2 = np.abs(vols[0]).ravel(), np.abs(vols[1]).ravel()
    centres = p1[a1 != 0]
    g1 = np.exp(-((p1[None] - centres[:, None]) ** 2).sum(-1) / (2 * sigma ** 2))
    g2 = np.exp(-((p2[None] - centres[:, None]) ** 2).sum(-1) / (2 * sigma ** 2))
    sum1, sum2 = (g1 * a1).sum(), (g2 * a2).sum()
    m = re.search(r"amp1_sum = (\S+),amp2_sum = (\S+)\nfractional overlap = (\S+)\n", result.stdout)
    assert m, result
    np.testing.assert_allclose([float(g) for g in m.groups()], [sum1, sum2, sum2 / (sum1 + sum2)], rtol=2e-5)


def polynomial_design(n):
    i = np.arange(n, dtype=np.float64)
    return np.stack([np.ones(n), i / n - 0.5, i * i / (n * n) - 0.3333333333333333], axis=1)


def test_snr_map_matches_numpy(kep):
    shape = (9, 2, 3, 4)
    rng = np.random.default_rng(6)
    t = np.arange(9)[:, None, None, None]
    data = (50 + 3 * t - 0.2 * t ** 2 + rng.normal(0, 2, shape)).astype(np.complex64)
    write_complex(kep.path("in.bfloat"), data)
    result = kep.script("set complex-output on\nread in.bfloat a\nmap-snr m a\nwrite out.bfloat m\n")
    assert "The map stack contains 3 images in the order SNR, S, N.\n" in result.stdout
    maps = read_complex(kep.path("out.bfloat"), (3,) + shape[1:])
    series = np.abs(data).reshape(9, -1).astype(np.float64)
    X = polynomial_design(9)
    beta, *_ = np.linalg.lstsq(X, series, rcond=None)
    kept = series - X[:, 1:] @ beta[1:]
    signal = kept.mean(axis=0)
    noise = kept.std(axis=0, ddof=1)
    np.testing.assert_allclose(maps.real, np.stack([signal / noise, signal, noise]).reshape(maps.shape), rtol=2e-4)
    assert np.all(maps.imag == 0)


def decay_reference(series, x, low, high):
    """Leading-points log-linear fit of every voxel; returns (value, S0) per voxel."""
    values, s0s = [], []
    for y in series.T:
        logs = np.where(y > 0, np.log(np.where(y > 0, y, 1)), 0)
        m = int(np.argmax(logs == 0)) if np.any(logs == 0) else len(logs)
        if m < 2:
            values.append(0.0), s0s.append(0.0)
            continue
        slope, intercept = np.polyfit(x[:m], logs[:m], 1)
        value = -1 / slope
        if high >= low and (value < low or value > high):
            value = 0.0
        values.append(value), s0s.append(np.exp(intercept))
    return np.array(values), np.array(s0s)


@pytest.mark.parametrize("command,words", [("map-t2", ("T2", "R2, T2, S0")),
                                           ("map-diffusion", ("ADC", "ACD, 1/ADC, S0"))])
def test_decay_maps_match_numpy(kep, command, words):
    te = np.array([10, 20, 35, 50, 80], dtype=np.float32)
    scale, offset = 1.5, 2.0
    x = (te * np.float32(scale) + np.float32(offset)).astype(np.float64)
    rng = np.random.default_rng(7)
    shape = (5, 1, 4, 5)
    t2 = rng.uniform(20, 120, shape[1:])
    data = 300 * np.exp(-x[:, None, None, None] / t2) * rng.uniform(0.95, 1.05, shape)
    data[2, 0, 0, :3] = 0  # fits on the first two points only
    data[0, 0, 1, 0] = 0  # no fit
    data[:, 0, 2, 1] = 10 * np.exp(x / 50)  # rising: negative, filtered
    data = data.astype(np.complex64)
    write_complex(kep.path("in.bfloat"), data)
    low, high = 0.0, 100.0
    script = (f"set complex-output on\nset map-array {' '.join('%g' % v for v in te)}\n"
              f"set array-scale {scale}\nset array-offset {offset}\nset filter-range {low} {high}\n"
              f"read in.bfloat a\n{command} m a\n{command} m a\nwrite out.bfloat m\n")
    result = kep.script(script)
    assert result.stdout.count(f"\nRemember: the `filter-range' variable is always applied to {words[0]} maps.\n") == 1
    assert result.stdout.count(f"The map stack contains 3 images in the order {words[1]}.\n") == 2
    series = np.abs(data).reshape(5, -1).astype(np.float64)
    values, s0 = decay_reference(series, x, low, high)
    fits = int(np.sum([np.count_nonzero(np.abs(series[:2, v]) > 0) == 2 for v in range(series.shape[1])]))
    filtered = int(np.sum((values == 0) & (series[0] > 0) & (series[1] > 0)))
    assert f"Of {fits} fits, {100 * filtered / fits:f} % were filtered.\n" in result.stdout
    maps = read_complex(kep.path("out.bfloat"), (3,) + shape[1:]).real.reshape(3, -1)
    nonzero = values != 0
    np.testing.assert_allclose(maps[1], values, rtol=1e-4)
    np.testing.assert_allclose(maps[0][nonzero], 1 / values[nonzero], rtol=1e-4)
    np.testing.assert_allclose(maps[2][nonzero], s0[nonzero], rtol=1e-4)
    assert np.all(maps[:, ~nonzero] == 0)
