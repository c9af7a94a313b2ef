"""Effect maps of GLM-fit-events against an independent numpy model: least
squares without an AR model, the two-pass autoregressive fit with it, and the
false-positive rate of kep's own p on null data with AR(1) noise.

Effects are compared as |kep - numpy| / (|numpy| + floor) <= 1e-4 with the
floor at the noise SD: effects below the noise level (the null ones) are held
to 1e-4 of the noise SD absolutely, since a relative bound alone would ask near
zero for more digits than single precision holds (the float samples near 1000
alone carry about 2e-5 of uncertainty into every effect). The numpy model fits
the float32 samples exactly as written to the files."""
import subprocess
from pathlib import Path

import numpy as np
import pytest

import glm_model as gm
from conftest import KEP

DRIVER = Path(KEP).parent / "glm_driver"


def fit_events(kep, study, volume, extra=""):
    study.write(kep.dir, volume)
    r = kep.script("read-GLM study.glm\nGLM-fit-events eff\nwrite-float eff.nii eff\n" + extra)
    assert "Error" not in r.stdout + r.stderr, r
    return r, gm.series(gm.load(kep.path("eff.nii")))


def test_effects_match_least_squares_with_excluded_images(kep):
    rng = np.random.default_rng(11)
    study = gm.Study(nimg=45, events={1: [(5, 17, 1), (45, 57, 1)], 2: [(25, 37, 1), (63, 71, 2)],
                                      3: [(19, 23, 1), (75, 81, 1)]},
                     terms=4, conditions="1 2 3", exclude={0: [(10, 12)], 1: [(30, 30)]})
    shape = (6, 5, 4)
    X, inc = study.design(), study.include()
    nvox = np.prod(shape)
    true = np.zeros((nvox, X.shape[1]))
    true[:, :3] = rng.normal(0, 20, size=(nvox, 3)) * (rng.random((nvox, 3)) < 0.5)  # half the effects null
    true[:, 3:] = rng.normal(0, 5, size=(nvox, X.shape[1] - 3))
    true[:, 3:5] += 1000  # offsets of the two runs
    Y = true @ X.T + rng.normal(0, 4, size=(nvox, study.ntime))
    Y[:, ~inc] = 5000  # excluded images must play no part
    Y = Y.astype(np.float32).astype(np.float64)
    _, eff = fit_events(kep, study, gm.grid(Y, shape))
    beta, _ = gm.ols(X, inc, Y)
    assert eff.shape == (nvox, 3)
    worst = gm.close(eff, beta[:, :3], floor=4.0)
    print(f"least squares: max relative difference {worst:.2e}")
    assert worst < 1e-4


def ar_volume(rng, shape, study, phi, X):
    """AR noise inside an ellipsoid head, zeros outside; two events active."""
    x, y, z = np.meshgrid(*(np.arange(n) for n in shape), indexing="ij")
    head = ((x - (shape[0] - 1) / 2) / (shape[0] / 2)) ** 2 + ((y - (shape[1] - 1) / 2) / (shape[1] / 2)) ** 2 \
        + ((z - (shape[2] - 1) / 2) / (shape[2] / 2)) ** 2 <= 1.0
    Y = gm.series(gm.ar_noise(rng, (*shape, study.ntime), phi, sd=3.0))
    nvox = Y.shape[0]
    beta = np.zeros((nvox, X.shape[1]))
    beta[:, 0] = rng.normal(0, 6, size=nvox)
    beta[:, 1] = rng.normal(0, 6, size=nvox)
    beta[:, 2:2 + study.nruns] = 800 + rng.normal(0, 50, size=(nvox, study.nruns))
    Y += beta @ X.T
    Y[~gm.series(head[..., None])[:, 0].astype(bool)] = 0
    return Y.astype(np.float32).astype(np.float64)


@pytest.mark.parametrize("order,fwhm,phi", [(1, 0, [0.5]), (2, 0, [0.3, 0.25]), (1, 7, [0.5])])
def test_ar_effects_match_the_two_pass_model(kep, order, fwhm, phi):
    """AR_smooth_mm 0 leaves the coefficient maps as estimated; 7 mm smooths them
    over 3 voxels in x and y and 2 slices in z, inside the head only."""
    rng = np.random.default_rng(20 + order + fwhm)
    study = gm.Study(nimg=40, terms=2, header=f"AR {order} {fwhm}\n")
    shape = (7, 6, 5)
    X, inc = study.design(), study.include()
    Y = ar_volume(rng, shape, study, phi, X)
    # The fit twice in one session: the second must not inherit the first one's filter.
    r, eff = fit_events(kep, study, gm.grid(Y, shape), "GLM-fit-events eff2\nwrite-float eff2.nii eff2\n")
    again = gm.series(gm.load(kep.path("eff2.nii")))
    beta, rho = gm.ar_fit(X, inc, Y, shape, order, fwhm)
    active = np.any(Y != 0, axis=1)
    assert 0 < active.sum() < len(active)
    worst = gm.close(eff, beta[:, :2], floor=3.0)
    print(f"AR {order}, {fwhm} mm: max relative difference {worst:.2e}, mean rho {rho[active].mean(axis=0)}")
    assert worst < 1e-4
    assert (eff[~active] == 0).all()
    np.testing.assert_array_equal(again, eff)
    # The model is discriminating: plain least squares, or the other smoothing, are far off.
    ols, _ = gm.ols(X, inc, Y)
    assert gm.close(ols[active, :2], beta[active, :2], floor=3.0) > 100 * max(worst, 1e-6)
    other, _ = gm.ar_fit(X, inc, Y, shape, order, 7 - fwhm)
    assert gm.close(other[active, :2], beta[active, :2], floor=3.0) > 100 * max(worst, 1e-6)


def study_p(directory):
    out = directory / "p.f32"
    proc = subprocess.run([str(DRIVER), "study-p", str(directory / "study.glm"), str(out)], cwd=directory,
                          capture_output=True, text=True, timeout=300)
    assert proc.returncode == 0, proc.stdout + proc.stderr
    return np.fromfile(out, dtype=np.float32)


def test_false_positive_rate_with_ar1_noise(tmp_path):
    """Null voxels with AR(1) noise of coefficient 0.4 and block events: without
    an AR model p < 0.01 comes far too often; with `AR 1` (coefficient maps
    smoothed over 6 mm) the rate is within a factor 1.5 of 0.01."""
    rng = np.random.default_rng(5)
    study = gm.Study(nimg=120, nruns=1, terms=3, conditions="1",
                     events={1: [(21, 59, 1), (101, 139, 1), (181, 219, 1)]})
    shape = (40, 40, 14)  # 22400 voxels
    noise = gm.ar_noise(rng, (*shape, study.ntime), [0.4], sd=5.0)
    volume = (1000 + noise).astype(np.float32)
    nvox = np.prod(shape)
    rates = {}
    for name, header in (("none", ""), ("AR 1", "AR 1 6\n")):
        study.header = header
        study.write(tmp_path, volume)
        p = study_p(tmp_path)
        assert p.shape == (nvox,) and ((p > 0) & (p <= 1)).all()
        rates[name] = float(np.mean(p < 0.01))
    print(f"false-positive rate at p < 0.01: without AR {rates['none']:.4f}, with AR 1 {rates['AR 1']:.4f}")
    assert 0.01 / 1.5 <= rates["AR 1"] <= 0.01 * 1.5
    assert rates["none"] > 0.02  # the correlated noise does inflate it, so the check above means something
