"""GLM-map-conditions against statsmodels OLS and a numpy GLS of the AR fit; the GLM mask;
threshold-p against Benjamini-Hochberg; clusters against scipy.ndimage.label.
Values compare as |kep - oracle| / (|oracle| + floor), p in log space so the tails count."""
import math

import nibabel as nib
import numpy as np
import pytest
import statsmodels.api as sm
from scipy import ndimage, stats
from statsmodels.stats.multitest import multipletests

import glm_model as gm
from conftest import write_nifti

EVENTS = {1: [(5, 17, 1), (45, 57, 1)], 2: [(25, 37, 1), (63, 71, 2)], 3: [(19, 23, 1), (75, 81, 1)]}
CONDITIONS = ["1", "2", "1-2", "1,2,3"]
SD = 2.0


def make_study(header="", exclude=None):
    return gm.Study(nimg=45, events=EVENTS, terms=3, conditions=" ".join(CONDITIONS), header=header,
                    exclude=exclude or {})


def run_maps(kep, study, Y, shape, before="", after=""):
    study.write(kep.dir, gm.grid(Y, shape))
    r = kep.script(f"read-GLM study.glm\n{before}GLM-map-conditions maps\nwrite-float maps.nii maps\n{after}")
    assert "Error" not in r.stdout + r.stderr, r
    maps = gm.series(gm.load(kep.path("maps.nii")))
    return r, maps.reshape(maps.shape[0], len(CONDITIONS), 5)


def oracle_ols(X, inc, Y):
    """[voxel, condition, (effect, error, t or F, log p, z)] from statsmodels on the included images."""
    out = np.zeros((Y.shape[0], len(CONDITIONS), 5))
    for v, y in enumerate(Y):
        if not y.any():
            out[v, :, 3] = 0.0  # log p of p 1
            continue
        fit = sm.OLS(y[inc], X[inc]).fit()
        for k, word in enumerate(CONDITIONS):
            C = gm.contrasts(word, X.shape[1])
            eff = C @ fit.params
            r = int(np.argmax(np.abs(eff)))
            error = math.sqrt(C[r] @ fit.cov_params() @ C[r])
            if len(C) == 1:
                t = fit.t_test(C).tvalue.item()
                logp = math.log(2) + stats.t.logsf(abs(t), fit.df_resid)
                out[v, k] = eff[r], error, t, logp, math.copysign(stats.norm.isf(math.exp(logp) / 2), t)
            else:
                f = fit.f_test(C)
                F = float(np.squeeze(f.fvalue))
                logp = stats.f.logsf(F, len(C), fit.df_resid)
                out[v, k] = eff[r], error, F, logp, stats.norm.isf(math.exp(logp))
    return out


def compare(got, expected, floor_effect):
    """Worst relative differences of effect, error, statistic, log p and z."""
    logp = np.log(got[..., 3])
    return {
        "effect": gm.close(got[..., 0], expected[..., 0], floor_effect),
        "error": gm.close(got[..., 1], expected[..., 1], floor_effect),
        "statistic": gm.close(got[..., 2], expected[..., 2], 0.1),
        "log p": gm.close(logp, expected[..., 3], 1e-6),
        "z": gm.close(got[..., 4], expected[..., 4], 0.1),
    }


# excluded images cost the float32 fit about a decimal digit
@pytest.mark.parametrize("exclude,tolerance", [({}, 1e-5), ({1: [(3, 5)]}, 1e-4)])
def test_maps_match_statsmodels_for_every_condition(kep, exclude, tolerance):
    """One-row (t) and three-row (F) conditions; an all-zero voxel gives 0, 0, 0, p 1, z 0."""
    rng = np.random.default_rng(3)
    study, shape = make_study(exclude=exclude), (5, 4, 3)
    Y = gm.simulate(rng, study, shape, sd=SD)
    Y[7] = 0
    r, maps = run_maps(kep, study, Y, shape)
    assert "condition 1,2,3: effect 15, error 16, F 17, p 18, z 19" in r.stdout
    assert "condition 1-2: effect 10, error 11, t 12, p 13, z 14" in r.stdout
    np.testing.assert_array_equal(maps[7], np.tile([0, 0, 0, 1, 0], (len(CONDITIONS), 1)))
    live = np.ones(len(Y), bool)
    live[7] = False
    worst = compare(maps[live], oracle_ols(study.design(), study.include(), Y)[live], floor_effect=SD / 100)
    assert max(worst.values()) < tolerance, worst
    # Null and strong voxels both present: p spans the range, near 1 for near-null voxels.
    p = maps[live, :, 3]
    assert p.max() > 0.9 and p.min() < 1e-8


def gls_oracle(X, inc, Y, rho):
    """Whitened refit per voxel: effect, error, t, log p, z of the one-row conditions."""
    dof = inc.sum() - X.shape[1]
    out = np.full((Y.shape[0], len(CONDITIONS), 5), np.nan)
    for v in np.flatnonzero(np.any(Y != 0, axis=1)):
        W = gm.whitening_filter(rho[v], X.shape[0])
        Xw, yw = W @ X, inc * (W @ Y[v])
        Xw[~inc] = 0
        cov = np.linalg.inv(Xw.T @ Xw)
        beta = cov @ Xw.T @ yw
        s2 = np.sum((yw - Xw @ beta) ** 2) / dof
        for k, word in enumerate(CONDITIONS):
            C = gm.contrasts(word, X.shape[1])
            if len(C) > 1:
                continue
            eff = (C @ beta).item()
            err = math.sqrt(s2 * (C @ cov @ C.T).item())
            logp = math.log(2) + stats.t.logsf(abs(eff / err), dof)
            out[v, k] = eff, err, eff / err, logp, math.copysign(stats.norm.isf(math.exp(logp) / 2), eff)
    return out


@pytest.mark.parametrize("order,phi", [(1, [0.45]), (2, [0.3, 0.25])])
def test_ar_maps_match_generalized_least_squares(kep, order, phi):
    """Voxels outside the GLM mask are neither fitted nor used by the coefficient smoothing."""
    rng = np.random.default_rng(30 + order)
    study, shape = make_study(f"AR {order} 5\n"), (10, 5, 4)  # x long enough for the kernel's inner points
    X, inc = study.design(), study.include()
    Y = gm.simulate(rng, study, shape, phi, SD)
    x, y, z = np.meshgrid(*(np.arange(n) for n in shape), indexing="ij")  # an ellipsoid "head"
    mask = gm.series(((x - 4.5) ** 2 / 20 + (y - 2) ** 2 / 6 + (z - 1.5) ** 2 / 4 <= 1.0)[..., None])[:, 0] > 0
    write_nifti(kep.path("mask.nii"), gm.grid(mask[:, None].astype(np.float32), shape), gm.RES)
    _, maps = run_maps(kep, study, Y, shape, before="read mask.nii mask\nset glm-mask mask\n")
    rho = gm.ar_fit(X, inc, np.where(mask[:, None], Y, 0), shape, order, 5)
    expected = gls_oracle(X, inc, np.where(mask[:, None], Y, 0), rho)
    one_row = [k for k, w in enumerate(CONDITIONS) if "," not in w]
    worst = compare(maps[mask][:, one_row], expected[mask][:, one_row], floor_effect=SD / 100)
    assert max(worst.values()) < 1e-4, worst
    np.testing.assert_array_equal(maps[~mask], np.tile([0, 0, 0, 1, 0], ((~mask).sum(), len(CONDITIONS), 1)))


def test_glm_mask_is_checked_at_the_command(kep):
    """A mask of another size fails and creates nothing; an empty mask warns and fits nothing."""
    study = make_study()
    study.write(kep.dir, np.ones((5, 4, 3, study.ntime)))
    write_nifti(kep.path("small.nii"), np.ones((5, 4, 2)), gm.RES)
    write_nifti(kep.path("empty.nii"), np.zeros((5, 4, 3)), gm.RES)
    # At the prompt an error does not end the session.
    r = kep.stdin("""read-GLM study.glm
read small.nii small
set glm-mask small
show glm-mask
GLM-map-conditions bad
write-float bad.nii bad
read empty.nii empty
set glm-mask empty
GLM-map-conditions none
write-float none.nii none
set glm-mask none
show glm-mask
""")
    assert "\tglm-mask        small\n" in r.stdout and "\tglm-mask        none\n" in r.stdout
    assert "The GLM mask small (5x4x2) does not match the stack glm (5x4x3)." in r.stdout + r.stderr
    assert not kep.path("bad.nii").exists()
    assert "The GLM mask empty selects no voxels." in r.stdout + r.stderr
    none = gm.series(gm.load(kep.path("none.nii")))
    np.testing.assert_array_equal(none, np.tile([0, 0, 0, 1, 0], (60, len(CONDITIONS))))


def read_overlay(path):
    return {tuple(int(w) for w in line.split()[:3]) for line in path.read_text().split("\n") if line.strip()}


def voxels_of(flags, shape):
    return {tuple(int(i) for i in v) for v in np.argwhere(gm.grid(np.asarray(flags)[:, None], shape)[..., 0])}


@pytest.mark.parametrize("masked", [False, True])
def test_threshold_p_against_benjamini_hochberg(kep, masked):
    """FDR, Bonferroni and uncorrected sets over the tested voxels, the cut-off, overlay logic."""
    rng = np.random.default_rng(6)
    study, shape = make_study(), (7, 6, 5)
    Y = gm.simulate(rng, study, shape, sd=SD)
    Y[rng.random(len(Y)) < 0.1] = 0  # outside the head: p 1 in the map
    mask = rng.random(shape) < 0.5
    write_nifti(kep.path("mask.nii"), mask, gm.RES)
    setup = "read mask.nii mask\nset glm-mask mask\n" if masked else ""
    r, maps = run_maps(kep, study, Y, shape, before=setup, after="""threshold-p fdr 0.05 maps>3
write-overlay fdr.ovl
threshold-p bonferroni 0.05 maps>3
write-overlay bonferroni.ovl
threshold-p uncorrected 0.05 maps>3
set overlay-logic not
threshold-p fdr 0.05 maps>3
write-overlay difference.ovl
set overlay-logic replace
threshold-p fdr 1e-30 maps>3
write-overlay nothing.ovl
""")
    p = maps[:, 0, 3]
    tested = gm.series(mask[..., None])[:, 0] > 0 if masked else p != 0
    m = int(tested.sum())
    fdr = np.zeros(len(p), bool)
    fdr[tested] = multipletests(p[tested], alpha=0.05, method="fdr_bh")[0]
    assert 0 < fdr.sum() < m
    assert read_overlay(kep.path("fdr.ovl")) == voxels_of(fdr, shape)
    assert f"fdr at 0.05 over {m} voxels: p cut-off {p[fdr].max():g}; {fdr.sum()} voxels pass." in r.stdout
    assert read_overlay(kep.path("bonferroni.ovl")) == voxels_of(tested & (p <= 0.05 / m), shape)
    assert read_overlay(kep.path("difference.ovl")) == voxels_of(tested & (p <= 0.05) & ~fdr, shape)
    assert f"fdr at 1e-30 over {m} voxels: no voxel passes." in r.stdout
    assert read_overlay(kep.path("nothing.ovl")) == set()


def test_clusters_against_scipy_label(kep):
    """Clusters beyond +-2.3, 26-connected, at least 3 voxels, one in the corner."""
    rng = np.random.default_rng(12)
    shape, res = (11, 9, 7), (2.5, 3.0, 3.5)
    z = ndimage.gaussian_filter(rng.normal(0, 1, shape), 1.0)
    z *= 2.0 / z.std()
    z[:2, :2, :2] = 6.0  # a cluster in the corner
    z[-1, -1, -1] = -7.0  # a single voxel, below the minimum size
    write_nifti(kep.path("z.nii"), z, res)
    r = kep.script("read z.nii z\nclusters 2.3 3 cl z\nwrite-float cl.nii cl\nwrite-overlay cl.ovl\n")
    assert "Error" not in r.stdout + r.stderr, r
    affine = nib.load(str(kep.path("cl.nii"))).affine
    z = z.astype(np.float32).astype(np.float64)
    found = []
    for sign in (1, -1):
        labels, n = ndimage.label(sign * z > 2.3, structure=np.ones((3, 3, 3)))
        for i in range(1, n + 1):
            inside = labels == i
            if inside.sum() < 3:
                continue
            peak = np.unravel_index(np.argmax(np.where(inside, sign * z, -np.inf)), shape)
            com = ndimage.center_of_mass(np.abs(z), labels, i)
            found.append((inside, inside.sum(), z[peak], nib.affines.apply_affine(affine, peak),
                          nib.affines.apply_affine(affine, com)))
    found.sort(key=lambda c: (-c[1], -abs(c[2])))
    assert len(found) >= 4 and any(c[0][0, 0, 0] for c in found)
    table = np.atleast_2d(np.loadtxt(kep.path("cl.clusters")))
    expected = np.array([[i + 1, c[1], c[1] * np.prod(res), c[2], *c[3], *c[4]] for i, c in enumerate(found)])
    assert table.shape == expected.shape
    assert gm.close(table, expected, 1.0) < 1e-5
    index = gm.load(kep.path("cl.nii"))[..., 0]
    for i, c in enumerate(found):
        np.testing.assert_array_equal(index == i + 1, c[0])
    assert read_overlay(kep.path("cl.ovl")) == {tuple(int(i) for i in v) for v in np.argwhere(index > 0)}
    assert f"{len(found)} clusters of at least 3 voxels beyond z 2.3 in z:" in r.stdout
