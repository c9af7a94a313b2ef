"""Every GLM command over the stack "glm" on small studies, against numpy."""
import re

import numpy as np
import pytest

import glm_model as gm
from conftest import write_xdisplay


def run(kep, study, volume, commands):
    study.write(kep.dir, volume)
    r = kep.script("read-GLM study.glm\n" + commands)
    assert "Error" not in r.stdout + r.stderr, r
    return r


def test_baseline_variance_and_autocorrelation_maps_match_numpy(kep):
    rng = np.random.default_rng(3)
    study = gm.Study(nimg=40)
    shape = (4, 3, 2)
    X, Y = study.design(), gm.simulate(rng, study, shape)
    Y[5] = 0  # one voxel with no signal at all
    Y[7] = 0
    Y[7, 10] = 50.0  # and one that is zero but in one image, which is fitted all the same
    r = run(kep, study, gm.grid(Y, shape),
            "GLM-residual-variance var\nwrite-float var.nii var\nGLM-map-AR ar\nwrite-float ar.nii ar\n"
            "GLM-find-maximal-effect 1-2 mx\nwrite-float mx.nii mx\n"
            "GLM-remove-baseline\nwrite-float removed.nii glm\n")
    assert "stack mx contains 1 volume\n" in r.stdout
    beta, _ = gm.ols(X, np.ones(study.ntime, bool), Y)
    res = Y - beta @ X.T
    dof = study.ntime - X.shape[1]
    var = gm.series(gm.load(kep.path("var.nii")))[:, 0]
    np.testing.assert_allclose(var, (res ** 2).sum(axis=1) / dof, rtol=1e-3, atol=1e-3)
    ar = gm.series(gm.load(kep.path("ar.nii")))
    assert ar.shape == (24, 40)  # 80 images: lags 1..40 at most
    c = np.array([[np.dot(res[v, k:], res[v, :study.ntime - k]) for k in range(41)] for v in range(24)])
    live = np.arange(24) != 5
    np.testing.assert_allclose(ar[live], c[live, 1:] / c[live, :1], atol=2e-3)
    assert np.isnan(ar[5]).all()  # a residual of zeros is 0/0, not an error
    mx = gm.series(gm.load(kep.path("mx.nii")))[:, 0]
    assert mx[5] == 0 and np.all(mx[live] != 0)
    np.testing.assert_allclose(gm.series(gm.load(kep.path("removed.nii"))), Y - beta[:, 2:] @ X[:, 2:].T, atol=5e-2)


def test_map_ar_lag_counts_and_progress(kep):
    rng = np.random.default_rng(4)
    for nimg, lags in ((5, 9), (50, 40)):
        study = gm.Study(nimg=nimg, events={1: [(1, 3, 1)], 2: [(5, 7, 1)]}, terms=1)
        Y = gm.simulate(rng, study, (2, 2, 2))
        r = run(kep, study, gm.grid(Y, (2, 2, 2)), "GLM-map-AR ar\nshow-stacks\n")
        assert f"ar\r\t\t2\r\t\t\t2\r\t\t\t\t2\r\t\t\t\t\t{lags}\r" in r.stdout, r.stdout
        # 8 voxels: after voxels 2, 4 and 6
        assert re.findall(r"(\d+) percent done\n", r.stdout) == ["25", "50", "75"], r.stdout


def test_fit_events_marks_only_third_event_voxels(kep):
    rng = np.random.default_rng(6)
    events = {1: [(5, 17, 1), (45, 57, 1)], 2: [(25, 37, 1), (63, 71, 2)], 3: [(19, 23, 1), (75, 79, 1)]}
    study = gm.Study(nimg=40, events=events, conditions="1,2,3")  # p of the joint F
    shape = (5, 4, 3)
    X = study.design()
    nvox = 60
    beta = np.zeros((nvox, X.shape[1]))
    beta[:, 3:5] = 1000
    strong3 = rng.random(nvox) < 0.3
    strong1 = ~strong3 & (rng.random(nvox) < 0.4)
    beta[strong3, 2] = 80
    beta[strong1, 0] = 80
    Y = beta @ X.T + rng.normal(0, 1, size=(nvox, study.ntime))
    r = run(kep, study, gm.grid(Y, shape), "GLM-fit-events eff\n")
    assert "stack eff contains 3 volumes in the following event order:\nevent 1\nevent 2\nevent 3\n" in r.stdout
    assert f"\nAn overlay of {strong3.sum()} voxels was defined.\n" in r.stdout
    assert f"hist[0] = {strong1.sum()} for event 1\n" in r.stdout
    assert f"hist[2] = {strong3.sum()} for event 3\n" in r.stdout
    # Two events: the overlay, built for the third event, stays empty.
    two = gm.Study(nimg=40)
    r = run(kep, two, gm.grid(two.design() @ np.r_[80, 0, np.full(two.design().shape[1] - 2, 1000)]
                               * np.ones((nvox, 1)) + rng.normal(0, 1, (nvox, two.ntime)), shape),
            "GLM-fit-events eff\n")
    assert "\nAn overlay of 0 voxels was defined.\n" in r.stdout
    assert f"hist[0] = {nvox} for event 1\n" in r.stdout


def test_ar_model_leaves_zero_voxels_as_zero_over_zero_and_refuses_what_it_cannot_smooth(kep):
    rng = np.random.default_rng(8)
    study = gm.Study(nimg=30, header="AR 1\n")
    Y = gm.simulate(rng, study, (3, 2, 2))
    Y[4] = 0
    run(kep, study, gm.grid(Y, (3, 2, 2)), "GLM-map-AR ar\nwrite-float ar.nii ar\n")
    ar = gm.series(gm.load(kep.path("ar.nii")))
    assert np.isnan(ar[4]).all()  # as without the AR model: 0/0
    assert np.isfinite(np.delete(ar, 4, axis=0)).all()
    study = gm.Study(nimg=30, header="AR 1 inf\n")
    study.write(kep.dir, gm.grid(Y, (3, 2, 2)))
    r = kep.stdin("read-GLM study.glm\nGLM-fit-events eff\nshow-stacks\nquit\n")
    assert "Error: The AR smoothing width inf cannot be used on the voxels of glm.\n" in r.stderr, r


def test_a_response_function_too_fine_to_convolve_is_refused(kep):
    study = gm.Study(nimg=30, header="IRF fine.irf\n")
    study.write(kep.dir, gm.grid(np.ones((4, study.ntime)), (2, 2, 1)))
    # 0.1 ms steps: 300000 response samples against 20000 samples per image.
    (kep.dir / "fine.irf").write_text("30 0.0001 1.5\n4.5 0.7\n13.5 -0.3\n")
    r = kep.script("read-GLM study.glm\n", timeout=60)
    assert ("Error: the IRF of 300000 samples of 0.0001 seconds is too fine to convolve with "
            "1200000 paradigm samples.\n") in r.stdout, r


NAME_MISSING = "Error: A name for the volume to create is mandatory here.\n"


@pytest.mark.parametrize("line", ["GLM-fit-events", "GLM-residual-variance", "GLM-map-AR",
                                  "GLM-residue", "GLM-residue 1-2", "GLM-find-maximal-effect",
                                  "GLM-find-maximal-effect 1-2", "GLM-vary-tau", "GLM-vary-tau 3"])
@pytest.mark.parametrize("other_stack", [False, True])
def test_missing_own_word_is_reported_before_the_glm_list(kep, line, other_stack):
    setup = ""
    if other_stack:
        write_xdisplay(kep.dir, "a.bfloat", np.ones((2, 2, 1, 1)), "<f4")
        setup = "read a.bfloat\n"
    r = kep.stdin(setup + line + "\nquit\n")
    assert r.stderr == NAME_MISSING, r
